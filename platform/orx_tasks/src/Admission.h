#pragma once

#include <QtGlobal>

#include <deque>
#include <memory>

namespace orx {

//! The slots of one tree of nested groups: at most so many of its children run at a time, first come, first
//! served. A slot is given to a guest, which gives it back when it needs it no more. Thread: that of the
//! tree.
class Admission : public std::enable_shared_from_this<Admission> {
public:
    class Guest {
    public:
        virtual ~Guest() = default;
        //! The guest's turn has come: one slot is its own now. False gives the slot back at once.
        virtual bool admitted() = 0;
    };

    explicit Admission(int slots) : m_free(slots) {}

    //! \a guest is admitted so many times, when its turns come.
    void enqueue(const std::shared_ptr<Guest>& guest, qsizetype times);
    //! The same, once: behind those who come back like this, too, and before the rest.
    void enqueueFirst(const std::shared_ptr<Guest>& guest);
    //! Gives slots back. Nothing is admitted before the next pump().
    void giveBack(int slots) { m_free += slots; }
    //! Admits whoever has waited longest while there are slots. Within an admission it leaves the rest to the
    //! loop that is under way, so that guests which give their slots back at once do not deepen the stack.
    void pump();
    //! The same when control returns to the thread's event loop or wait.
    void pumpLater();

private:
    struct Turns {
        std::shared_ptr<Guest> guest;
        qsizetype count;
    };

    bool isAnybodyInLine() const { return !m_returning.empty() || !m_turns.empty(); }
    std::shared_ptr<Guest> takeFirst();

    std::deque<std::shared_ptr<Guest>> m_returning; //!< before the rest
    std::deque<Turns> m_turns;
    int m_free;
    bool m_pumpsLater = false;
    int m_pumpLevel = -1; //!< of nested event loops, of the innermost pump under way
};

} // namespace orx
