#pragma once

#include "orx_common_ms_reader_export.h"

#include "WorkWatch.h"

#include <OwnerInbox.h>

#include <QObject>
#include <QPointer>

#include <functional>
#include <memory>

namespace orx::vonk {

//! Brings the progress of a body that may run on a worker to the thread of its task, as whole percents, each
//! once. Belongs to the task, and is made on its thread.
class ORX_COMMON_MS_READER_EXPORT TaskPercents {
public:
    //! \a tell is called on the thread of \a owner, never when that is gone.
    TaskPercents(QObject* owner, std::function<void(int percent)> tell);

    //! For one run of the body. Thread: any.
    WorkWatch watch(std::function<bool()> isCanceled) const;

private:
    struct Shared {
        QPointer<QObject> owner;
        std::function<void(int)> tell;
    };
    std::shared_ptr<const Shared> m_shared;
    std::shared_ptr<OwnerInbox> m_inbox;
};

} // namespace orx::vonk
