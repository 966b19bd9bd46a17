#include "ChunkSchedule.h"

namespace orx {

ChunkSchedule::ChunkSchedule(const ChunkPlan& plan, const QHash<int, QByteArray>& received,
                             const Limits& limits)
    : m_plan(plan), m_received(received), m_limits(limits) {}

bool ChunkSchedule::mayRead() const {
    return !m_reading && m_nextToRead < m_plan.count() && m_waiting.size() + m_inFlight < m_limits.held;
}

int ChunkSchedule::startReading() {
    m_reading = true;
    return m_nextToRead;
}

ChunkSchedule::Verdict ChunkSchedule::onRead(const QByteArray& checksum) {
    const int index = m_nextToRead++;
    m_reading = false;
    const QByteArray known = m_received.take(index);
    if (!known.isEmpty() && known == checksum)
        return Verdict::Skip;
    m_waiting.append(index);
    return Verdict::Send;
}

std::optional<int> ChunkSchedule::takeNextToSend() {
    if (m_waiting.isEmpty() || m_inFlight >= m_limits.inFlight)
        return std::nullopt;
    const int index = m_waiting.takeFirst();
    ++m_inFlight;
    ++m_attempts[index];
    return index;
}

void ChunkSchedule::onSent(int index) {
    --m_inFlight;
    m_attempts.remove(index);
    if (m_plan.isLast(index))
        m_hashSent = true;
}

bool ChunkSchedule::onRefused(int index) {
    --m_inFlight;
    if (m_attempts.value(index) >= m_limits.attempts) {
        m_attempts.remove(index);
        return false;
    }
    m_waiting.prepend(index);
    return true;
}

bool ChunkSchedule::needsContentHashAlone() const {
    return !m_hashSent && m_nextToRead == m_plan.count() && m_waiting.isEmpty() && m_inFlight == 0;
}

void ChunkSchedule::onContentHashSent() {
    m_hashSent = true;
}

bool ChunkSchedule::isComplete() const {
    return m_hashSent && m_nextToRead == m_plan.count() && m_waiting.isEmpty() && m_inFlight == 0;
}

} // namespace orx
