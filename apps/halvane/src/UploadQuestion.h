#pragma once

#include "TerminalLine.h"

#include <UploadPolicy.h>

#include <functional>

namespace halvane::cli {

class Output;
class ProgressReport;

//! Puts what a policy asks to the person at the terminal, one question at a time, while the upload goes on. A
//! question is taken back when the upload was cancelled. All arguments outlive the object. Thread: the main
//! one.
class UploadQuestion : public QObject {
    Q_OBJECT
public:
    //! \a quit: what to do when the person wants to end the upload, or the input ends.
    UploadQuestion(host::UploadPolicy& policy, const Output& output, ProgressReport& progress,
                   std::function<void()> quit);
    ~UploadQuestion() override;

private:
    void ask(const QString& localPath, const host::RemoteItem& existing);
    void answer(const QByteArray& line);
    void end();

    host::UploadPolicy& m_policy;
    const Output& m_output;
    ProgressReport& m_progress;
    const std::function<void()> m_quit;
    TerminalLine m_line;
};

} // namespace halvane::cli
