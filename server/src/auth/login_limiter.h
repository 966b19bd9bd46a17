// Slows down guessing: more than a number of failed logins of one name within a minute, and the name has to
// wait. Thread-safe.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>

namespace halvane::server {

class LoginLimiter {
public:
    using Clock = std::chrono::steady_clock;

    // How long the name must wait from `now` on; zero when it may try.
    std::chrono::seconds waitFor(const std::string& name, Clock::time_point now);
    void countFailure(const std::string& name, Clock::time_point now);

    static constexpr std::size_t allowedFailures = 10;
    static constexpr std::chrono::seconds window{60};

private:
    static constexpr std::size_t maximumNames = 10'000;

    void forgetOld(Clock::time_point now);

    std::mutex m_mutex;
    std::unordered_map<std::size_t, std::deque<Clock::time_point>> m_failures; // by hash of the name
};

} // namespace halvane::server
