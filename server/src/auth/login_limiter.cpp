#include "auth/login_limiter.h"

namespace halvane::server {

namespace {

void dropOld(std::deque<LoginLimiter::Clock::time_point>& times, LoginLimiter::Clock::time_point now) {
    while (!times.empty() && times.front() + LoginLimiter::window <= now)
        times.pop_front();
}

} // namespace

std::chrono::seconds LoginLimiter::waitFor(const std::string& name, Clock::time_point now) {
    const std::lock_guard lock(m_mutex);
    const auto found = m_failures.find(std::hash<std::string>()(name));
    if (found == m_failures.end())
        return {};
    dropOld(found->second, now);
    if (found->second.size() < allowedFailures)
        return {};
    return std::chrono::ceil<std::chrono::seconds>(found->second.front() + window - now);
}

void LoginLimiter::countFailure(const std::string& name, Clock::time_point now) {
    const std::lock_guard lock(m_mutex);
    if (m_failures.size() >= maximumNames)
        forgetOld(now);
    auto& times = m_failures[std::hash<std::string>()(name)];
    dropOld(times, now);
    times.push_back(now);
    if (times.size() > allowedFailures)
        times.pop_front();
}

// With the mutex held. When nothing is old, guessers are at work on very many names: forgetting all is the
// smaller evil against memory without bound.
void LoginLimiter::forgetOld(Clock::time_point now) {
    for (auto it = m_failures.begin(); it != m_failures.end();) {
        dropOld(it->second, now);
        it = it->second.empty() ? m_failures.erase(it) : std::next(it);
    }
    if (m_failures.size() >= maximumNames)
        m_failures.clear();
}

} // namespace halvane::server
