#include "StoppedRun.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include <csignal>

namespace orx::testing {

namespace {

constexpr int kAttempts = 20;

//! The letter of the process's state; 'T' when all of it is stopped.
char stateOf(qint64 pid) {
    QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray line = file.readAll();
    const qsizetype name = line.lastIndexOf(')');
    return name < 0 || name + 2 >= line.size() ? char(0) : line[name + 2];
}

bool areAllStopped(qint64 pid) {
    const QStringList threads =
        QDir(QStringLiteral("/proc/%1/task").arg(pid)).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    return std::all_of(threads.begin(), threads.end(),
                       [](const QString& thread) { return stateOf(thread.toLongLong()) == 'T'; });
}

} // namespace

QStringList halfMadeIn(const QString& directory) {
    return QDir(directory).entryList({QStringLiteral(".*.part")},
                                     QDir::AllEntries | QDir::Hidden | QDir::System);
}

StoppedRun::StoppedRun(const Client& client, const QStringList& arguments, const QString& directory,
                       const std::function<void()>& undo) {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (tryOnce(client, arguments, directory))
            return;
        undo();
    }
    m_process.reset();
    ADD_FAILURE() << "was always done before it could be stopped: " << qPrintable(arguments.join(u' '));
}

bool StoppedRun::tryOnce(const Client& client, const QStringList& arguments, const QString& directory) {
    m_process = client.start(arguments);
    const qint64 pid = m_process->processId();
    while (halfMadeIn(directory).isEmpty() && !m_process->waitForFinished(1)) {
    }
    if (m_process->state() == QProcess::NotRunning)
        return false;
    ::kill(pid_t(pid), SIGSTOP);
    while (!areAllStopped(pid) && !m_process->waitForFinished(1)) {
    }
    if (m_process->state() == QProcess::Running && !halfMadeIn(directory).isEmpty())
        return true;
    goOn();
    return false;
}

Outcome StoppedRun::goOn() {
    return goOnWith(SIGCONT);
}

Outcome StoppedRun::goOnWith(int signal) {
    const auto pid = pid_t(m_process->processId());
    ::kill(pid, signal);
    ::kill(pid, SIGCONT);
    return Client::finish(*m_process);
}

} // namespace orx::testing
