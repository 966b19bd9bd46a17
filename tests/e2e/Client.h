#pragma once

#include "RealServer.h"

#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <memory>
#include <ostream>

//! How failures show texts.
inline void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}
inline void PrintTo(const QByteArray& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}

namespace orx::testing {

//! What one run of the command-line host gave.
struct Outcome {
    int exitCode = -1;
    //! The process ended by itself (and not by a signal).
    bool ended = false;
    QByteArray out;
    QByteArray err;

    //! The JSON objects of standard output, one a line; a line that is none is a test failure.
    QList<QJsonObject> objects() const;
    //! The only one of them.
    const QJsonObject object() const;
};

//! A machine with the command-line host on it: settings, cache and files of its own in a temporary directory.
class Client {
public:
    Client();

    //! Runs the program to its end.
    Outcome run(const QStringList& arguments, const QByteArray& input = QByteArray()) const;
    //! The same behind a wrapper such as {"setpriv", ...}.
    Outcome runWrapped(const QStringList& wrapper, const QStringList& arguments) const;
    //! Starts the program and returns; the caller waits or kills.
    std::unique_ptr<QProcess> start(const QStringList& arguments) const;
    static Outcome finish(QProcess& process, const QByteArray& input = QByteArray());

    //! Logs in; anything but success is a test failure.
    bool login(const QUrl& url, const QString& user = QString::fromLatin1(RealServer::AdminName),
               const QString& password = QString::fromLatin1(RealServer::AdminPassword),
               const QStringList& options = {});
    //! A test failure unless the run succeeds.
    Outcome mustRun(const QStringList& arguments) const;

    void setEnvironment(const QString& name, const QString& value) { m_environment.insert(name, value); }
    const QProcessEnvironment& environment() const { return m_environment; }
    QString configDir() const { return m_dir.filePath(QStringLiteral("config")); }
    //! An absolute path in the client's working directory.
    QString path(const QString& name) const;
    QString makeFile(const QString& name, const QByteArray& content) const;
    //! \a size bytes that differ from seed to seed.
    QString makeLargeFile(const QString& name, qint64 size, quint32 seed = 1) const;
    static QByteArray contentOf(const QString& path);
    //! Names in the working directory (or one below it), hidden ones included.
    QStringList filesIn(const QString& subDirectory = QString()) const;

private:
    std::unique_ptr<QProcess> prepared(const QString& program, const QStringList& arguments) const;

    QTemporaryDir m_dir;
    QProcessEnvironment m_environment;
};

//! Lower-case hexadecimal SHA-256.
QString sha256Of(const QByteArray& content);

} // namespace orx::testing
