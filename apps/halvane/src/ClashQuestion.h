#pragma once

#include "TerminalLine.h"

#include <ClashAnswerer.h>

namespace halvane::cli {

class Output;
class ProgressReport;

//! Puts clashes to the person at the terminal, one question at a time, while the download goes on. The end of
//! the input is the answer to quit. A question is taken back when the download was cancelled. All arguments
//! outlive the object. Thread: the main one.
class ClashQuestion : public QObject {
    Q_OBJECT
public:
    ClashQuestion(host::ClashAnswerer& answerer, const Output& output, ProgressReport& progress);
    ~ClashQuestion() override;

private:
    void ask(const host::Clash& clash);
    void onLine(const QByteArray& line);
    void answer(const host::ClashAnswer& answer);

    host::ClashAnswerer& m_answerer;
    const Output& m_output;
    ProgressReport& m_progress;
    TerminalLine m_line;
};

} // namespace halvane::cli
