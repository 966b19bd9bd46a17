#include "RealServer.h"

#include <HalvaneConnection.h>
#include <HalvaneSessionTasks.h>

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QTimer>

#include <array>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <thread>

namespace orx::testing {
namespace {

constexpr int WatchdogMs = 120'000;
constexpr auto MetricsPath = "/api/v1/metrics";

bool ranWell(const QProcess& process) {
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

} // namespace

bool waitUntil(const std::function<bool()>& condition) {
    const QDeadlineTimer watchdog(WatchdogMs);
    // Conditions may depend on other processes, of which the event loop hears nothing: look again every few
    // milliseconds.
    QTimer tick;
    tick.start(5);
    while (!condition()) {
        if (watchdog.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
    }
    return true;
}

QString programPath(const QString& name) {
    return QDir(QStringLiteral(ORX_BINARY_DIR)).filePath(name);
}

RealServer::RealServer(const QString& dataDir)
    : m_dataDir(dataDir.isEmpty() ? m_temporary.filePath(QStringLiteral("data")) : dataDir)
    , m_logFile(m_temporary.filePath(QStringLiteral("server.log"))) {
    if (QFileInfo::exists(m_dataDir) && !QDir(m_dataDir).isEmpty())
        return;
    admin({QStringLiteral("init"), QStringLiteral("--admin"), QString::fromLatin1(AdminName),
           QStringLiteral("--password-stdin")},
          QByteArray(AdminPassword) + '\n');
}

RealServer::~RealServer() {
    kill();
}

bool RealServer::start() {
    const bool up = tryStart();
    EXPECT_TRUE(up) << "halvane-server did not start: " << qPrintable(m_process->errorString())
                    << log().constData();
    return up;
}

bool RealServer::tryStart() {
    const QString portFile = m_temporary.filePath(QStringLiteral("port"));
    QFile::remove(portFile);
    m_process = std::make_unique<QProcess>();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (auto it = m_environment.constBegin(); it != m_environment.constEnd(); ++it)
        environment.insert(it.key(), it.value());
    m_process->setProcessEnvironment(environment);
    m_process->setStandardOutputFile(m_logFile, QIODevice::Append);
    m_process->setStandardErrorFile(m_logFile, QIODevice::Append);
    m_logMark = QFileInfo(m_logFile).size();
    m_process->start(programPath(QStringLiteral("halvane-server")),
                     QStringList{QStringLiteral("--data"), m_dataDir, QStringLiteral("--listen"),
                                 QStringLiteral("127.0.0.1:%1").arg(m_port), QStringLiteral("--port-file"),
                                 portFile} +
                         m_arguments);
    return waitUntil(
               [&] { return QFileInfo::exists(portFile) || m_process->state() == QProcess::NotRunning; }) &&
           QFileInfo::exists(portFile);
}

bool RealServer::stop() {
    if (!isRunning())
        return false;
    m_process->terminate();
    return m_process->waitForFinished(WatchdogMs) && ranWell(*m_process);
}

void RealServer::kill() {
    if (!isRunning())
        return;
    m_process->kill();
    m_process->waitForFinished(WatchdogMs);
}

QByteArray RealServer::log() const {
    QFile file(m_logFile);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

//! Whether the server's own count knows of no request but the one that asks for it.
bool RealServer::isQuiet() const {
    const Socket socket = Socket::connected("127.0.0.1", m_port);
    socket.send("GET " + std::string(MetricsPath) + " HTTP/1.1\r\nHost: test\r\nConnection: close\r\n\r\n");
    std::string reply;
    std::array<char, 4096> buffer{};
    while (const size_t count = socket.receive(buffer.data(), buffer.size()))
        reply.append(buffer.data(), count);
    if (reply.find("\nhalvane_requests_running ") == std::string::npos)
        throw std::runtime_error("the server does not tell how many requests run: " + reply);
    return reply.find("\nhalvane_requests_running 1\n") != std::string::npos;
}

//! A reply goes out before its line is written.
void RealServer::waitUntilQuiet() const {
    const QDeadlineTimer watchdog(WatchdogMs);
    while (isRunning() && !isQuiet()) {
        ASSERT_FALSE(watchdog.hasExpired()) << "requests are still running";
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

QList<RealServer::Request> RealServer::requests() const {
    waitUntilQuiet();
    QList<Request> found;
    const QList<QByteArray> lines = log().mid(m_logMark).split('\n');
    for (const QByteArray& line : lines) {
        const QJsonObject object = QJsonDocument::fromJson(line).object();
        if (!object.contains(QStringLiteral("method")) ||
            object[QStringLiteral("path")] == QLatin1StringView(MetricsPath))
            continue;
        found.append({object[QStringLiteral("method")].toString(), object[QStringLiteral("path")].toString(),
                      object[QStringLiteral("status")].toInt(),
                      qint64(object[QStringLiteral("bytes_in")].toDouble()),
                      qint64(object[QStringLiteral("bytes_out")].toDouble())});
    }
    return found;
}

void RealServer::clearRequests() {
    waitUntilQuiet();
    m_logMark = QFileInfo(m_logFile).size();
}

int RealServer::countRequests(const QString& method, const QString& part) const {
    const QList<Request> all = requests();
    return int(std::count_if(all.begin(), all.end(),
                             [&](const Request& r) { return r.method == method && r.path.contains(part); }));
}

QByteArray RealServer::admin(const QStringList& arguments, const QByteArray& standardInput) {
    QProcess process;
    process.start(programPath(QStringLiteral("halvane-server")),
                  arguments + QStringList{QStringLiteral("--data"), m_dataDir});
    process.write(standardInput);
    process.closeWriteChannel();
    EXPECT_TRUE(process.waitForFinished(WatchdogMs) && ranWell(process))
        << qPrintable(arguments.join(u' ')) << ": " << process.readAllStandardError().constData();
    return process.readAllStandardOutput();
}

ClientEnvironment::ClientEnvironment(const QUrl& url) {
    EXPECT_TRUE(QDir().mkpath(configDir()) && QDir().mkpath(workDir()));
    qputenv("HALVANE_CONFIG_DIR", QFile::encodeName(configDir()));
    qputenv("HALVANE_CACHE_DIR", QFile::encodeName(m_dir.filePath(QStringLiteral("cache"))));
    HalvaneConnection::instance().setSettings(
        HalvaneSettings(HalvaneMachineSettings(url), HalvaneUserSettings()));
}

ClientEnvironment::~ClientEnvironment() {
    HalvaneConnection::instance().setCredentials(QString(), QByteArray());
    HalvaneConnection::instance().setSettings(HalvaneSettings());
    qunsetenv("HALVANE_CONFIG_DIR");
    qunsetenv("HALVANE_CACHE_DIR");
}

bool ClientEnvironment::login(const QString& user, const QString& password) {
    const Error error = tryLogin(user, password);
    EXPECT_FALSE(error.hasError()) << qPrintable(error.traceText());
    return !error.hasError();
}

Error ClientEnvironment::tryLogin(const QString& user, const QString& password) {
    HalvaneLoginTask task(user, password);
    task.exec();
    const Error error = task.waitForFinished();
    HalvaneConnection::instance().setCredentials(user, error.hasError() ? QByteArray() : task.token());
    return error;
}

QString ClientEnvironment::makeFile(const QString& name, qint64 size, quint32 seed) const {
    const QString path = QDir(workDir()).filePath(name);
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QRandomGenerator random(seed);
    QByteArray block(64 * 1024, Qt::Uninitialized);
    for (qint64 left = size; left > 0; left -= block.size()) {
        random.fillRange(reinterpret_cast<quint32*>(block.data()), block.size() / qsizetype(sizeof(quint32)));
        EXPECT_EQ(file.write(block.constData(), qMin<qint64>(left, block.size())),
                  qMin<qint64>(left, block.size()));
    }
    return path;
}

} // namespace orx::testing
