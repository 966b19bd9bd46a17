#pragma once

#include <QElapsedTimer>

#include <algorithm>
#include <chrono>
#include <stop_token>
#include <thread>

//! The longest that a thread of its own, which only sleeps for 1 ms at a time, was kept waiting: what the
//! machine itself does to any thread.
class FloorProbe {
public:
    FloorProbe() : m_thread([this](const std::stop_token& stop) { run(stop); }) {}
    double longestGapMs() {
        m_thread.request_stop();
        m_thread.join();
        return double(m_longest) / 1e6;
    }

private:
    void run(const std::stop_token& stop) {
        QElapsedTimer clock;
        while (!stop.stop_requested()) {
            clock.start();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            m_longest = std::max(m_longest, clock.nsecsElapsed());
        }
    }

    qint64 m_longest = 0; //!< Read when the thread has ended.
    std::jthread m_thread;
};
