#include "HalvaneUtils.h"

#include <BackgroundWork.h>
#include <Vonk.h>
#include <WorkerPool.h>

#include <QCoreApplication>
#include <QLoggingCategory>

#include <algorithm>
#include <deque>
#include <mutex>

namespace orx {

namespace {

Q_LOGGING_CATEGORY(unpackLog, "orx.halvane.unpack", QtInfoMsg)

//! The packed file may have changed since the server acknowledged its content.
Error checkSource(const vonk::Vonk& source, const QString& expected, const vonk::WorkWatch& watch) {
    if (expected.isEmpty())
        return {};
    const auto sha256 = source.sha256(watch);
    ORX_RETURN_ON_ERROR(sha256.error());
    if (QString::fromLatin1(*sha256) == expected)
        return {};
    return Error(ErrorCode::ChecksumMismatch,
                 QCoreApplication::translate(
                     "orx::HalvaneUtils", "The packed file is not what the server acknowledged any more."));
}

void unpack(const vonk::Vonk& source, const QString& target, const std::shared_ptr<BackgroundWork>& work) {
    vonk::WorkWatch watch;
    if (work)
        watch.isCanceled = [work] { return work->isCanceled(); };
    Error error = checkSource(source, work ? work->sourceSha256() : QString(), watch);
    if (!error.hasError())
        error = source.unpack(target, watch);
    if (error.hasError() && !error.isCanceled())
        qCWarning(unpackLog).noquote() << "unpacking into" << target << "failed:" << error.errorMessage();
    if (work)
        work->finished(error);
}

//! Unpackings of the process, a few at a time, so that others get workers too. They have no turn to pack: a
//! packing that has one may be waiting for the room that an unpacking will leave.
class UnpackLine {
public:
    using Job = std::function<void()>;

    static UnpackLine& instance() {
        // Never destroyed: workers may be at it while the program ends. What waits then is let go.
        static UnpackLine& only = *new UnpackLine;
        static const ClearedAtExit cleared{only};
        return only;
    }
    void add(Job job) {
        {
            const std::lock_guard lock(m_mutex);
            m_jobs.push_back(std::move(job));
            if (m_workers >= std::max(1, WorkerPool::instance().threadCount() / 4))
                return;
            ++m_workers;
        }
        submit();
    }

private:
    struct ClearedAtExit {
        UnpackLine& line;
        ~ClearedAtExit() { line.clear(); }
    };

    void submit() {
        WorkerPool::instance().submit([this] { serve(); }, nullptr, {});
    }
    //! One job for each order of the pool, which takes none any more when the program ends.
    void serve() {
        const Job job = take();
        if (!job)
            return;
        job();
        submit();
    }
    void clear() {
        std::deque<Job> dropped;
        const std::lock_guard lock(m_mutex);
        dropped.swap(m_jobs);
    }
    //! Null when nothing is left for this worker.
    Job take() {
        const std::lock_guard lock(m_mutex);
        if (m_jobs.empty()) {
            --m_workers;
            return {};
        }
        Job job = std::move(m_jobs.front());
        m_jobs.pop_front();
        return job;
    }

    std::mutex m_mutex;
    std::deque<Job> m_jobs;
    int m_workers = 0;
};

} // namespace

Error HalvaneUtils::unpackAsync(const QString& sourcePath, const PathImpl<PathType::Unknown>& targetPath,
                                const std::shared_ptr<const void>& held) {
    const auto source = std::make_shared<vonk::Vonk>(sourcePath);
    ORX_RETURN_ON_ERROR(source->open());
    ORX_RETURN_ON_ERROR(source->validate());
    // The source is closed before what is held is let go: captures are destroyed in the opposite order.
    UnpackLine::instance().add([held, source, target = targetPath.toString(),
                                work = BackgroundWork::begin()] { unpack(*source, target, work); });
    return {};
}

} // namespace orx
