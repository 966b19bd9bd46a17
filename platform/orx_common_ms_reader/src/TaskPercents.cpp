#include "TaskPercents.h"

namespace orx::vonk {

TaskPercents::TaskPercents(QObject* owner, std::function<void(int percent)> tell)
    : m_shared(std::make_shared<Shared>(Shared{owner, std::move(tell)}))
    , m_inbox(OwnerInbox::ofThisThread()) {}

WorkWatch TaskPercents::watch(std::function<bool()> isCanceled) const {
    const auto report = [shared = m_shared, inbox = m_inbox, last = -1](qint64 done, qint64 total) mutable {
        const int percent = total > 0 ? int(double(done) / double(total) * 100) : 100;
        if (percent == last)
            return;
        last = percent;
        inbox->post([shared, percent] {
            if (shared->owner)
                shared->tell(percent);
        });
    };
    return {report, std::move(isCanceled)};
}

} // namespace orx::vonk
