#pragma once

#include "PackInput.h"
#include "Vonk.h"
#include "VonkPacker.h"

#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace orx::vonk {

//! A directory for acquisitions ("in"), packed files and what was unpacked ("out").
class PackingFixture : public ::testing::Test {
protected:
    void SetUp() override;

    QString in(const QString& name = {}) const;
    QString out(const QString& name = {}) const;
    //! Makes a file, and the directories on the way, with the time \a seconds and \a nanoseconds.
    static void write(const QString& path, const QByteArray& content, qint64 seconds = 1'700'000'000,
                      int nanoseconds = 0);
    static void setTime(const QString& path, qint64 seconds, int nanoseconds = 0);
    static QByteArray read(const QString& path);
    //! Bytes that do not compress, the same for the same seed.
    static QByteArray noise(qsizetype size, quint32 seed = 1);
    //! Bytes that compress, without a period that a long window would find.
    static QByteArray text(qsizetype size, quint32 seed = 1);

    //! An acquisition of several files and directories: "run1.d".
    QString makeAcquisition() const;
    //! Packs without an error.
    static void pack(const QString& source, const QString& target);
    static PackInput inputOf(const QString& path);

    enum class Times { All, OfFiles };
    //! Of everything in \a directory: its path and what it is, with content and time.
    static std::map<std::string, std::string> tree(const QString& directory, Times times = Times::All);
    //! The names in \a directory, hidden ones included.
    static QStringList names(const QString& directory);
    //! The output of a program that must succeed.
    static QString outputOf(const QString& program, const QStringList& arguments);

    QTemporaryDir m_dir;
};

//! The error of opening and checking \a path.
Error checked(const QString& path, Vonk::Check check);

} // namespace orx::vonk
