#include "WorkWatch.h"

#include "PackedText.h"

namespace orx::vonk {

void WorkWatch::report(qint64 done, qint64 total) const {
    if (progress && total > 0)
        progress(done, total);
}

Error WorkWatch::check() const {
    if (!isCanceled || !isCanceled())
        return {};
    return Error(ErrorCode::Canceled, translated("The work was cancelled."));
}

} // namespace orx::vonk
