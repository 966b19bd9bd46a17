#pragma once

#include "Client.h"

#include <gtest/gtest.h>

#include <QMap>

namespace orx::testing {

//! Local trees that go up: a server, a client, and makers of everything that may lie in a directory. Nothing
//! made here looks as if it were still being written.
class UploadTrees : public ::testing::Test {
protected:
    void SetUp() override;

    // ---- below the client's working directory; absolute paths

    QString write(const QString& path, const QByteArray& content);
    QString makeDirectory(const QString& path);
    //! A real acquisition that is a file.
    QString makeRawFile(const QString& path);
    //! A real acquisition that is a directory.
    QString makeRawDirectory(const QString& path);
    //! A packed acquisition of a real file.
    QString makePacked(const QString& path);
    //! 2026 with a.txt, sub/run.mzML (raw data), sub/frames.d (raw data), sub/deep/old.vonk (packed),
    //! sub/empty (a directory) and sub/zero (an empty file).
    void makeWholeTree();

    // ---- runs

    Outcome put(const QStringList& arguments) const {
        return client.run(QStringList{"--json", "put"} + arguments);
    }
    static QList<QJsonObject> ofType(const Outcome& outcome, const QString& type);
    //! The outcomes of files by their path below \a directory.
    QMap<QString, QString> outcomes(const Outcome& outcome, const QString& directory) const;
    //! The reasons of what was left out, in the same way.
    QMap<QString, QString> leftOut(const Outcome& outcome, const QString& directory) const;
    //! The errors' names of what failed, in the same way.
    QMap<QString, QString> failures(const Outcome& outcome, const QString& directory) const;

    // ---- the server

    //! "path@version" of every file below a folder, sorted; "path/" for folders.
    QStringList onServer(const QString& folder = "/") const;
    QByteArray contentOnServer(const QString& reference) const;
    //! Requests other than questions, as "METHOD path".
    QStringList changes() const;

    RealServer server;
    Client client;

private:
    QString relative(const QString& path, const QString& directory) const;
};

} // namespace orx::testing
