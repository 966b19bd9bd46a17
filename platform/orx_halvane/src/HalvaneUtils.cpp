#include "HalvaneUtils.h"

#include <BackgroundWork.h>
#include <Vonk.h>
#include <WorkerPool.h>

#include <QCoreApplication>
#include <QLoggingCategory>

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

} // namespace

Error HalvaneUtils::unpackAsync(const QString& sourcePath, const PathImpl<PathType::Unknown>& targetPath,
                                const std::shared_ptr<const void>& held) {
    const auto source = std::make_shared<vonk::Vonk>(sourcePath);
    ORX_RETURN_ON_ERROR(source->open());
    ORX_RETURN_ON_ERROR(source->validate());
    // The source is closed before what is held is let go: captures are destroyed in the opposite order.
    WorkerPool::instance().submit([held, source, target = targetPath.toString(),
                                   work = BackgroundWork::begin()] { unpack(*source, target, work); },
                                  nullptr, {});
    return {};
}

} // namespace orx
