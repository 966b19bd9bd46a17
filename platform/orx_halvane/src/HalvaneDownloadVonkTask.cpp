#include "HalvaneDownloadVonkTask.h"

#include "DownloadNames.h"
#include "HalvaneGetVonkMetadataTask.h"
#include "TransferProgress.h"
#include "WorkerStepTask.h"

#include <FilePlace.h>
#include <Vonk.h>

#include <QFile>
#include <QPointer>

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>
#include <utility>

namespace orx {
namespace {

//! Of the percents; the rest is unpacking.
constexpr int percentsOfDownload = 80;

Error removeAll(const QString& path) {
    std::error_code failure;
    std::filesystem::remove_all(QFile::encodeName(path).toStdString(), failure);
    if (!failure)
        return Error();
    return ORX_ECATCH(
        Error::fromErrno(failure.value(), HalvaneDownloadVonkTask::tr("Could not remove \"%1\"").arg(path)));
}

Error flush(const QString& path) {
    const int file = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    const int reason = file < 0 || ::fsync(file) != 0 ? errno : 0;
    if (file >= 0)
        ::close(file);
    return reason == 0
               ? Error()
               : Error::fromErrno(reason,
                                  HalvaneDownloadVonkTask::tr("Could not flush the file \"%1\"").arg(path));
}

class UnpackStepTask final : public Task {
public:
    struct Paths {
        QString packed;
        //! Hidden, on the way to the target.
        QString unpacked;
        QString target;
    };
    UnpackStepTask(const Paths& paths, UnpackedTarget::Replace replace)
        : Task(QStringLiteral("Unpack(%1)").arg(paths.packed)), m_paths(paths), m_replace(replace) {
        setExecutionMode(ExecutionMode::Worker);
    }
    ~UnpackStepTask() override { stopBody(); }

protected:
    Error doExec() override {
        ORX_RETURN_ON_ERROR(unpack());
        Error placed = UnpackedTarget(m_paths.target).place(m_paths.unpacked, m_replace);
        if (placed.hasError()) {
            // What is in the way stays, and what was unpacked is unpacked again when it is gone.
            (void)removeAll(m_paths.unpacked);
            return ORX_ECATCH(placed);
        }
        return ORX_ECATCH(removeAll(m_paths.packed));
    }

private:
    Error unpack() const {
        // What an interrupted run unpacked, before it could take its place.
        ORX_RETURN_ON_ERROR(removeAll(m_paths.unpacked));
        vonk::Vonk file(m_paths.packed);
        ORX_RETURN_ON_ERROR(file.open());
        vonk::WorkWatch watch;
        watch.isCanceled = [this] { return isCancelRequested(); };
        return ORX_ECATCH(file.unpack(m_paths.unpacked, watch));
    }

    const Paths m_paths;
    const UnpackedTarget::Replace m_replace;
};

class CompareStepTask final : public Task {
public:
    CompareStepTask(const QString& path, const QList<vonk::VonkEntry>& entries)
        : Task(QStringLiteral("Compare(%1)").arg(path)), m_path(path), m_entries(entries) {
        setExecutionMode(ExecutionMode::Worker);
    }
    ~CompareStepTask() override { stopBody(); }
    bool isSame() const { return m_isSame; }

protected:
    Error doExec() override {
        m_isSame = UnpackedTarget(m_path).holdsExactly(m_entries, [this] { return isCancelRequested(); });
        return Error();
    }

private:
    const QString m_path;
    const QList<vonk::VonkEntry> m_entries;
    bool m_isSame = false;
};

//! What the server has is no packed acquisition that this program can read.
bool isOfTheContent(const Error& error) {
    return error.is(ErrorCode::ParseError) || error.is(ErrorCode::ChecksumMismatch) ||
           error.is(ErrorCode::InvalidArgument);
}

} // namespace

HalvaneDownloadVonkTask::HalvaneDownloadVonkTask(const HalvaneFileDownloadParameters& parameters)
    : HalvaneComplexTask(QStringLiteral("DownloadVonk(%1)").arg(parameters.reference->displayText()), nullptr)
    , m_parameters(parameters) {}

HalvaneDownloadVonkTask::~HalvaneDownloadVonkTask() = default;

QString HalvaneDownloadVonkTask::targetName() const {
    return m_parameters.targetName.isEmpty() ? m_parameters.reference->name() : m_parameters.targetName;
}

QString HalvaneDownloadVonkTask::targetPath() const {
    return m_parameters.targetDir.absoluteFilePath(targetName());
}

QString HalvaneDownloadVonkTask::packedName() const {
    return DownloadNames::packedName(targetName(), m_parameters.reference->id(),
                                     m_parameters.reference->version());
}

UnpackedTarget::Replace HalvaneDownloadVonkTask::replace() const {
    if (m_parameters.keepSame)
        return UnpackedTarget::Replace::Everything;
    return m_parameters.overwrite ? UnpackedTarget::Replace::Files : UnpackedTarget::Replace::Nothing;
}

Error HalvaneDownloadVonkTask::initialize() {
    ORX_RETURN_ON_ERROR(DownloadNames::check(targetName()));
    const QPointer<HalvaneDownloadVonkTask> guard(this);
    Q_EMIT progressInitiated(TransferProgress::maximum);
    if (guard && isRunning())
        lookAtTarget();
    return Error();
}

void HalvaneDownloadVonkTask::lookAtTarget() {
    const auto found = std::make_shared<UnpackedTarget::Found>();
    const auto look = [found, path = targetPath(),
                       packed = m_parameters.targetDir.absoluteFilePath(packedName()),
                       isOurs = m_parameters.keepSame] {
        *found = UnpackedTarget(path).look();
        // A file that could not be unpacked before need not be fetched before it is tried again. Where this
        // fails it is fetched.
        if (isOurs && *found == UnpackedTarget::Found::File)
            (void)FilePlace::take(QFile::encodeName(path), QFile::encodeName(packed));
        return Error();
    };
    execSubtask(std::make_unique<WorkerStepTask>(QStringLiteral("LookAtTarget"), look),
                [this, found](WorkerStepTask*) { onFound(*found); });
}

void HalvaneDownloadVonkTask::onFound(UnpackedTarget::Found found) {
    using Replace = UnpackedTarget::Replace;
    if (found == UnpackedTarget::Found::Nothing)
        fetch();
    else if (replace() == Replace::Nothing)
        refuse();
    else if (found == UnpackedTarget::Found::Directory)
        readManifest();
    else if (found == UnpackedTarget::Found::File || replace() == Replace::Everything)
        fetch();
    else
        refuse();
}

void HalvaneDownloadVonkTask::readManifest() {
    const auto& file = m_parameters.reference;
    execSubtask(
        std::unique_ptr<BaseTask>(std::make_unique<HalvaneGetVonkMetadataTask>(
            HalvaneGetVonkMetadataTask::Wanted{file->id(), file->version(), file->name()})),
        [this](BaseTask* task) {
            compare(static_cast<HalvaneGetVonkMetadataTask*>(task)->metadata().entries);
        },
        [this](BaseTask* task) {
            if (isCanceled())
                return;
            if (isOfTheContent(task->error()))
                onCompared(false);
            else
                finish(ORX_ECATCH(Error(task->error())));
        });
}

void HalvaneDownloadVonkTask::compare(const QList<vonk::VonkEntry>& entries) {
    execSubtask(std::make_unique<CompareStepTask>(targetPath(), entries),
                [this](CompareStepTask* step) { onCompared(step->isSame()); });
}

void HalvaneDownloadVonkTask::onCompared(bool isSame) {
    if (isCanceled())
        return;
    if (isSame)
        // An interrupted run may have left the packed file.
        execSubtask(std::make_unique<WorkerStepTask>(QStringLiteral("RemovePacked"),
                                                     [path = m_parameters.targetDir.absoluteFilePath(
                                                          packedName())] { return removeAll(path); }),
                    [this](WorkerStepTask*) { showProgress(TransferProgress::maximum); });
    else if (m_parameters.keepSame)
        fetch();
    else
        refuse();
}

void HalvaneDownloadVonkTask::refuse() {
    finish(ORX_ECATCH(UnpackedTarget(targetPath()).taken()));
}

void HalvaneDownloadVonkTask::fetch() {
    HalvaneFileDownloadParameters packed = m_parameters;
    packed.targetName = packedName();
    packed.isIntermediate = true;
    packed.keepSame = true; // an interrupted run may have it already
    auto task = std::make_unique<HalvaneDownloadFileTask>(packed);
    connect(task.get(), &BaseTask::progress, this, [this](int value, int maximum) {
        showProgress(maximum > 0 ? value * percentsOfDownload / maximum : 0);
    });
    execSubtask(std::move(task), [this](HalvaneDownloadFileTask* done) { onDownloaded(done->targetPath()); });
}

void HalvaneDownloadVonkTask::onDownloaded(const QString& packedPath) {
    const auto& file = m_parameters.reference;
    const QString unpacked = m_parameters.targetDir.absoluteFilePath(
        DownloadNames::unpackedName(targetName(), file->id(), file->version()));
    execSubtask(
        std::unique_ptr<BaseTask>(std::make_unique<UnpackStepTask>(
            UnpackStepTask::Paths{packedPath, unpacked, targetPath()}, replace())),
        [this](BaseTask*) { showProgress(TransferProgress::maximum); },
        [this, packedPath](BaseTask* step) { onUnpackFailed(packedPath, step->error()); });
}

void HalvaneDownloadVonkTask::onUnpackFailed(const QString& packedPath, const Error& error) {
    if (isCanceled())
        return;
    if (isOfTheContent(error))
        keepAsFile(packedPath, error);
    else
        finish(ORX_ECATCH(Error(error)));
}

void HalvaneDownloadVonkTask::keepAsFile(const QString& packedPath, const Error& error) {
    const auto place = [packedPath, path = targetPath(), mayGo = replace()]() -> Error {
        ORX_RETURN_ON_ERROR(flush(packedPath));
        return ORX_ECATCH(UnpackedTarget(path).place(packedPath, mayGo));
    };
    execSubtask(std::make_unique<WorkerStepTask>(QStringLiteral("KeepAsFile"), place),
                [this, error](WorkerStepTask*) {
                    addWarning(tr("\"%1\" is kept as the file that it is, since it cannot be unpacked: %2")
                                   .arg(m_parameters.reference->displayText(), error.errorMessage()));
                    showProgress(TransferProgress::maximum);
                });
}

void HalvaneDownloadVonkTask::showProgress(int percent) {
    if (percent > std::exchange(m_percent, std::max(m_percent, percent)))
        Q_EMIT progress(percent, TransferProgress::maximum);
}

} // namespace orx
