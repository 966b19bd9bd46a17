#pragma once

#include "Client.h"

#include <functional>

namespace orx::testing {

//! A run of the command-line host that was stopped (SIGSTOP) in the middle of making something.
class StoppedRun {
public:
    //! Runs \a arguments until the hidden file or directory shows that is made in \a directory, and stops the
    //! program there. One that was done before it could be stopped is undone by \a undo and run once more.
    StoppedRun(const Client& client, const QStringList& arguments, const QString& directory,
               const std::function<void()>& undo);

    //! False, with a test failure, when it could not be caught.
    bool isStopped() const { return m_process != nullptr; }
    //! Sends \a signal, lets it go on, and waits for its end.
    Outcome goOnWith(int signal);
    Outcome goOn();

private:
    bool tryOnce(const Client& client, const QStringList& arguments, const QString& directory);

    std::unique_ptr<QProcess> m_process;
};

//! The hidden files and directories in \a directory that are being made, or were left by a killed run.
QStringList halfMadeIn(const QString& directory);

} // namespace orx::testing
