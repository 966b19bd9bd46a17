#include "Client.h"

#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QRandomGenerator>

namespace orx::testing {
namespace {

constexpr int watchdogMs = 300'000;

} // namespace

QList<QJsonObject> Outcome::objects() const {
    QList<QJsonObject> found;
    for (const QByteArray& line : out.split('\n')) {
        if (line.isEmpty())
            continue;
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(line, &error);
        EXPECT_TRUE(document.isObject())
            << "no JSON object: " << line.constData() << qPrintable(error.errorString());
        found.append(document.object());
    }
    return found;
}

const QJsonObject Outcome::object() const {
    const QList<QJsonObject> all = objects();
    EXPECT_EQ(all.size(), 1) << out.constData() << err.constData();
    return all.isEmpty() ? QJsonObject() : all.first();
}

Client::Client() : m_environment(QProcessEnvironment::systemEnvironment()) {
    EXPECT_TRUE(QDir().mkpath(path(QString())));
    m_environment.insert(QStringLiteral("HALVANE_CONFIG_DIR"), configDir());
    m_environment.insert(QStringLiteral("HALVANE_CACHE_DIR"), m_dir.filePath(QStringLiteral("cache")));
    m_environment.insert(QStringLiteral("HOME"), m_dir.filePath(QStringLiteral("home")));
    m_environment.remove(QStringLiteral("HALVANE_PROFILE"));
}

QString Client::path(const QString& name) const {
    return m_dir.filePath(QStringLiteral("work/") + name);
}

std::unique_ptr<QProcess> Client::prepared(const QString& program, const QStringList& arguments) const {
    auto process = std::make_unique<QProcess>();
    process->setProgram(program);
    process->setArguments(arguments);
    process->setProcessEnvironment(m_environment);
    process->setWorkingDirectory(path(QString()));
    return process;
}

Outcome Client::run(const QStringList& arguments, const QByteArray& input) const {
    const auto process = prepared(programPath(QStringLiteral("halvane")), arguments);
    process->start();
    return finish(*process, input);
}

Outcome Client::runWrapped(const QStringList& wrapper, const QStringList& arguments) const {
    const auto process = prepared(
        wrapper.first(), wrapper.mid(1) + QStringList(programPath(QStringLiteral("halvane"))) + arguments);
    process->start();
    return finish(*process);
}

std::unique_ptr<QProcess> Client::start(const QStringList& arguments) const {
    auto process = prepared(programPath(QStringLiteral("halvane")), arguments);
    process->start();
    EXPECT_TRUE(process->waitForStarted(watchdogMs)) << qPrintable(process->errorString());
    return process;
}

Outcome Client::finish(QProcess& process, const QByteArray& input) {
    process.write(input);
    process.closeWriteChannel();
    EXPECT_TRUE(process.state() == QProcess::NotRunning || process.waitForFinished(watchdogMs))
        << qPrintable(process.errorString());
    Outcome outcome;
    // A wait that was cut short earlier is remembered as an error too, and says nothing of the end.
    outcome.ended = process.exitStatus() == QProcess::NormalExit &&
                    (process.error() == QProcess::UnknownError || process.error() == QProcess::Timedout);
    outcome.exitCode = process.exitCode();
    outcome.out = process.readAllStandardOutput();
    outcome.err = process.readAllStandardError();
    EXPECT_FALSE(outcome.err.contains("Sanitizer") || outcome.err.contains("runtime error"))
        << outcome.err.constData();
    return outcome;
}

bool Client::login(const QUrl& url, const QString& user, const QString& password,
                   const QStringList& options) {
    const QStringList arguments =
        options + QStringList{QStringLiteral("login"), url.toString(), QStringLiteral("--user"), user,
                              QStringLiteral("--password-stdin")};
    const Outcome outcome = run(arguments, password.toUtf8() + '\n');
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    return outcome.ended && outcome.exitCode == 0;
}

Outcome Client::mustRun(const QStringList& arguments) const {
    Outcome outcome = run(arguments);
    EXPECT_TRUE(outcome.ended);
    EXPECT_EQ(outcome.exitCode, 0) << qPrintable(arguments.join(u' ')) << "\n" << outcome.err.constData();
    return outcome;
}

QString Client::makeFile(const QString& name, const QByteArray& content) const {
    QFile file(path(name));
    EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << qPrintable(file.errorString());
    EXPECT_EQ(file.write(content), content.size());
    return file.fileName();
}

QString Client::makeLargeFile(const QString& name, qint64 size, quint32 seed) const {
    QRandomGenerator random(seed);
    QByteArray content(size, Qt::Uninitialized);
    content.resize((size + 3) / 4 * 4);
    random.fillRange(reinterpret_cast<quint32*>(content.data()), content.size() / 4);
    content.resize(size);
    return makeFile(name, content);
}

QByteArray Client::contentOf(const QString& path) {
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << qPrintable(path);
    return file.readAll();
}

QStringList Client::filesIn(const QString& subDirectory) const {
    return QDir(path(subDirectory))
        .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
}

QString sha256Of(const QByteArray& content) {
    return QString::fromLatin1(QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex());
}

} // namespace orx::testing
