#include "Admission.h"

#include "OwnerInbox.h"
#include "OwnerInbox_p.h"

#include <QThread>

#include <utility>

namespace orx {

void Admission::enqueue(const std::shared_ptr<Guest>& guest, qsizetype times) {
    if (!m_turns.empty() && m_turns.back().guest == guest)
        m_turns.back().count += times;
    else
        m_turns.push_back({guest, times});
}

void Admission::enqueueFirst(const std::shared_ptr<Guest>& guest) {
    m_returning.push_back(guest);
}

std::shared_ptr<Admission::Guest> Admission::takeFirst() {
    std::shared_ptr<Guest> guest;
    if (!m_returning.empty()) {
        guest = std::move(m_returning.front());
        m_returning.pop_front();
        return guest;
    }
    guest = m_turns.front().guest;
    if (--m_turns.front().count == 0)
        m_turns.pop_front();
    return guest;
}

void Admission::pump() {
    const auto self = shared_from_this();
    // A guest may block in an event loop of its own, in which the others are admitted.
    const int level = QThread::currentThread()->loopLevel() + waitDepth();
    if (m_pumpLevel >= level)
        return;
    const int outerLevel = std::exchange(m_pumpLevel, level);
    while (m_free > 0 && isAnybodyInLine()) {
        const std::shared_ptr<Guest> guest = takeFirst();
        --m_free;
        if (m_free > 0 && isAnybodyInLine())
            pumpLater(); // the guest may block
        if (!guest->admitted())
            ++m_free;
    }
    m_pumpLevel = outerLevel;
}

void Admission::pumpLater() {
    if (std::exchange(m_pumpsLater, true))
        return;
    OwnerInbox::ofThisThread()->post([weak = weak_from_this()] {
        if (const auto self = weak.lock()) {
            self->m_pumpsLater = false;
            self->pump();
        }
    });
}

} // namespace orx
