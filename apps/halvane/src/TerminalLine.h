#pragma once

#include <QByteArray>
#include <QObject>
#include <QSocketNotifier>

#include <memory>

namespace halvane::cli {

//! Lines that a person types at the terminal on standard input, read while the event loop goes on. Thread:
//! the main one.
class TerminalLine : public QObject {
    Q_OBJECT
public:
    TerminalLine();
    ~TerminalLine() override;

    //! Whether there is somebody to ask, and a place to do so.
    static bool isPossible();

    //! Reads from now on. What was typed before is dropped: it answers no question that had not been seen.
    void start();
    void stop();
    bool isReading() const { return m_input != nullptr; }

Q_SIGNALS:
    //! A line without its end; reading goes on.
    void read(const QByteArray& line);
    //! The input has ended.
    void ended();

private:
    void onReadable();

    //! While lines are read.
    std::unique_ptr<QSocketNotifier> m_input;
    QByteArray m_line;
};

} // namespace halvane::cli
