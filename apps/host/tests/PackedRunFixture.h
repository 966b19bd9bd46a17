#pragma once

#include <PackInput.h>
#include <VonkPacker.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

//! A scratch directory with an acquisition of two files in "in", its packed file, and an empty "out".
class PackedRunFixture : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(QDir(m_dir.path()).mkpath(QStringLiteral("in")));
        ASSERT_TRUE(QDir(m_dir.path()).mkpath(QStringLiteral("out")));
        write(QStringLiteral("in/run.main"), QByteArray(3 << 20, 'm'));
        write(QStringLiteral("in/run.extra"), QByteArray(1 << 20, 'e'));
        orx::vonk::PackInput input;
        input.path = path(QStringLiteral("in/run.main"));
        input.companions = {path(QStringLiteral("in/run.extra"))};
        ASSERT_TRUE(orx::vonk::VonkPacker::pack(input, packed()));
    }
    QString path(const QString& name) const { return m_dir.filePath(name); }
    QString packed() const { return path(QStringLiteral("run.vonk")); }
    void write(const QString& name, const QByteArray& content) const {
        QFile file(path(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(content), content.size());
    }
    QByteArray read(const QString& name) const {
        QFile file(path(name));
        EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << name.toStdString();
        return file.readAll();
    }

    QTemporaryDir m_dir;
};
