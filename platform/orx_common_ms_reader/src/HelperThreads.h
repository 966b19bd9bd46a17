#pragma once

#include <QtGlobal>

#include <list>

namespace orx::vonk {

//! Work of which helping threads take steps.
class HelpedWork {
public:
    //! Takes a step that is due; false when there is none. On several helping threads at a time.
    virtual bool help() = 0;

protected:
    ~HelpedWork() = default;
};

//! A place of work among all that the helping threads of the process serve. They go from one to the next with
//! each step, so that none keeps them that has nothing for them to do; there are workThreadCount() - 1 of
//! them, and none while there is no work. Whoever calls gets on without any. One thread.
class HelpLine {
public:
    explicit HelpLine(HelpedWork& work);
    //! Returns when no helping thread is at the work any more.
    ~HelpLine();
    Q_DISABLE_COPY_MOVE(HelpLine)

    //! A step is due. One thread more helps, if there is one that does nothing or may be started.
    void call();

    struct Place {
        HelpedWork* work;
        quint64 calls = 0;
        int helping = 0;
        bool isDue = false;
        bool isLeaving = false;
    };

private:
    const std::list<Place>::iterator m_place;
};

} // namespace orx::vonk
