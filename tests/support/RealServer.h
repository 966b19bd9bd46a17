#pragma once

#include "Sockets.h"

#include <Error.h>

#include <QHash>
#include <QProcess>
#include <QTemporaryDir>
#include <QUrl>

#include <functional>
#include <memory>

namespace orx::testing {

//! Processes this thread's events until \a condition is true; false after a generous watchdog (30 s, times
//! ten under sanitizers).
bool waitUntil(const std::function<bool()>& condition);
//! bin/NAME of the build that this test belongs to.
QString programPath(const QString& name);

//! The real halvane-server as a process on a port of the loopback interface that is its own for the life of
//! the object: while no process runs, who connects is refused. Failures of the process are test failures with
//! its own words. The server is killed and its data removed when the object goes.
class RealServer {
public:
    //! One line of the request log.
    struct Request {
        QString method;
        QString path;
        int status = 0;
        qint64 bytesIn = 0;
        qint64 bytesOut = 0;
    };

    static constexpr auto AdminName = "admin";
    static constexpr auto AdminPassword = "correct horse battery";

    //! Prepares a data directory (in \a dataDir, or in a temporary one when that is empty) unless it is
    //! prepared already. Does not start the server.
    explicit RealServer(const QString& dataDir = QString());
    ~RealServer();

    //! Further options of the server process, for the next start().
    void setArguments(const QStringList& arguments) { m_arguments = arguments; }
    //! Further environment variables, for the next start().
    void setEnvironment(const QString& name, const QString& value) { m_environment.insert(name, value); }
    //! Starts the process and waits until it listens, every time at the same port.
    bool start();
    //! The same, but a server that does not come up is no test failure.
    bool tryStart();
    //! SIGTERM; returns whether the process ended with code 0.
    bool stop();
    //! SIGKILL.
    void kill();
    bool isRunning() const { return m_process && m_process->state() == QProcess::Running; }
    qint64 processId() const { return m_process ? m_process->processId() : 0; }

    QUrl url() const { return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(m_port)); }
    quint16 port() const { return m_port; }
    QString dataDir() const { return m_dataDir; }
    //! What the process printed; its structured log.
    QByteArray log() const;
    //! The request lines of the log since the last start or clearRequests(), in the order in which the
    //! replies went out: first waits for the lines of all requests that have begun, thus of all whose reply
    //! the client has. What a client sent and gave up may still be on its way; stop() waits for that, too.
    QList<Request> requests() const;
    void clearRequests();
    //! Requests whose method is \a method and whose path contains \a part.
    int countRequests(const QString& method, const QString& part) const;

    //! Runs an administrative command of the server program on this data directory ("--data" is added); its
    //! standard output.
    QByteArray admin(const QStringList& arguments, const QByteArray& standardInput = QByteArray());

private:
    bool isQuiet() const;
    void waitUntilQuiet() const;

    QTemporaryDir m_temporary;
    QString m_dataDir;
    QString m_logFile;
    QStringList m_arguments;
    QHash<QString, QString> m_environment;
    std::unique_ptr<QProcess> m_process;
    Socket m_reserved = Socket::reserved();
    quint16 m_port = m_reserved.port();
    qint64 m_logMark = 0;
};

//! Points HalvaneConnection, the configuration and the cache directory of this process at a server and at
//! temporary directories for the life of the object, and logs in.
class ClientEnvironment {
public:
    explicit ClientEnvironment(const QUrl& url);
    ~ClientEnvironment();
    //! Logs in and keeps the token; failing is a test failure.
    bool login(const QString& user = QString::fromLatin1(RealServer::AdminName),
               const QString& password = QString::fromLatin1(RealServer::AdminPassword));
    //! The same, but failing is no test failure.
    Error tryLogin(const QString& user = QString::fromLatin1(RealServer::AdminName),
                   const QString& password = QString::fromLatin1(RealServer::AdminPassword));
    QString configDir() const { return m_dir.filePath(QStringLiteral("config")); }
    //! A directory for files of the test.
    QString workDir() const { return m_dir.filePath(QStringLiteral("work")); }
    //! Writes a file of \a size bytes that differ for different seeds; its path.
    QString makeFile(const QString& name, qint64 size, quint32 seed = 1) const;

private:
    QTemporaryDir m_dir;
};

} // namespace orx::testing
