#pragma once

#include "HalvaneUploadJournal.h"

#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace orx::testing {

//! A configuration directory of its own, a server and a user.
class HalvaneStateFixture : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    static void useServer(const QString& url);
    QString configDir() const { return m_dir.filePath(QStringLiteral("config")); }
    QString databasePath() const { return configDir() + QStringLiteral("/halvane.sqlite"); }
    //! A file beside the configuration directory.
    QString makeFile(const QString& name, const QByteArray& content = "content") const;
    //! What describes the upload of such a file as a new file in a folder.
    static HalvaneUploadRecord recordFor(const QString& path, int folderId = 7);

    QTemporaryDir m_dir;
};

//! A second process that works on the same configuration directory.
class StateProcess {
public:
    explicit StateProcess(const QStringList& arguments);
    //! Kills a process that still runs.
    ~StateProcess();
    //! The next line it prints.
    QString readLine();
    //! Lets it go on to its end; its exit code.
    int finish();
    //! SIGKILL, and waits until it is gone.
    void kill();

private:
    QProcess m_process;
};

} // namespace orx::testing
