#include "HelperThreads.h"

#include "SharedLimits.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

namespace orx::vonk {

namespace {

class Helpers {
public:
    using Places = std::list<HelpLine::Place>;

    static Helpers& instance() {
        // Never destroyed: what runs while the program ends may still call.
        static Helpers& only = *new Helpers;
        return only;
    }

    Places::iterator add(HelpedWork& work) {
        const Lock lock(m_mutex);
        // The threads stay for this work: who has just left as the last one waits for their end no more.
        m_left.notify_all();
        return m_line.insert(m_line.end(), HelpLine::Place{&work});
    }

    void call(Places::iterator place) {
        const Lock lock(m_mutex);
        ++place->calls;
        place->isDue = true;
        if (m_idle > m_called) {
            ++m_called;
            m_change.notify_one();
        } else if (m_running.size() + 1 < workThreadCount()) {
            start();
        }
    }

    void remove(Places::iterator place) {
        std::list<std::thread> ended;
        {
            Lock lock(m_mutex);
            place->isLeaving = true;
            m_left.wait(lock, [&] { return place->helping == 0; });
            m_line.erase(place);
            if (m_line.empty()) {
                m_change.notify_all();
                m_left.wait(lock, [this] { return m_running.empty() || !m_line.empty(); });
            }
            ended.swap(m_ended);
        }
        for (std::thread& thread : ended)
            thread.join();
    }

private:
    using Lock = std::unique_lock<std::mutex>;

    void start() {
        const auto thread = m_running.emplace(m_running.end());
        try {
            *thread = std::thread([this, thread] { serve(thread); });
        } catch (const std::system_error&) {
            m_running.erase(thread);
        }
    }

    void serve(std::list<std::thread>::iterator thread) {
        Lock lock(m_mutex);
        while (!m_line.empty()) {
            const auto due = std::ranges::find_if(
                m_line, [](const auto& place) { return place.isDue && !place.isLeaving; });
            if (due != m_line.end()) {
                help(lock, due);
                continue;
            }
            ++m_idle;
            m_change.wait(lock, [this] { return m_called > 0 || m_line.empty(); });
            --m_idle;
            m_called = std::max(0, m_called - 1);
        }
        m_ended.splice(m_ended.end(), m_running, thread);
        m_left.notify_all();
    }

    //! The lock is not held meanwhile.
    void help(Lock& lock, Places::iterator place) {
        // The others come first next time.
        m_line.splice(m_line.end(), m_line, place);
        const quint64 calls = place->calls;
        ++place->helping;
        lock.unlock();
        const bool hasHelped = place->work->help();
        lock.lock();
        place->isDue = hasHelped || place->calls != calls;
        if (--place->helping == 0)
            m_left.notify_all();
    }

    std::mutex m_mutex;
    //! For the idle threads.
    std::condition_variable m_change;
    //! For those who leave the line.
    std::condition_variable m_left;
    Places m_line;
    std::list<std::thread> m_running;
    std::list<std::thread> m_ended;
    int m_idle = 0;
    //! Of the idle ones.
    int m_called = 0;
};

} // namespace

HelpLine::HelpLine(HelpedWork& work) : m_place(Helpers::instance().add(work)) {}

HelpLine::~HelpLine() {
    Helpers::instance().remove(m_place);
}

void HelpLine::call() {
    Helpers::instance().call(m_place);
}

} // namespace orx::vonk
