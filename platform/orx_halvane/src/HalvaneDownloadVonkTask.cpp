#include "HalvaneDownloadVonkTask.h"

#include "DownloadNames.h"
#include "TransferProgress.h"

#include <Vonk.h>

#include <QFile>
#include <QPointer>

#include <algorithm>
#include <filesystem>
#include <utility>

namespace orx {
namespace {

//! Of the percents; the rest is unpacking.
constexpr int percentsOfDownload = 80;

std::filesystem::path nativePath(const QString& path) {
    return QFile::encodeName(path).toStdString();
}

Error refused(const QString& path, const std::error_code& failure) {
    return Error(ErrorCode::FileNotWritable,
                 HalvaneDownloadVonkTask::tr("Could not change \"%1\": %2.")
                     .arg(path, QString::fromLocal8Bit(failure.message().c_str())));
}

class UnpackStepTask final : public Task {
public:
    UnpackStepTask(const QString& sourcePath, const QString& targetPath)
        : Task(QStringLiteral("Unpack(%1)").arg(sourcePath))
        , m_sourcePath(sourcePath)
        , m_targetPath(targetPath) {
        setExecutionMode(ExecutionMode::Worker);
    }
    ~UnpackStepTask() override { stopBody(); }

protected:
    Error doExec() override {
        ORX_RETURN_ON_ERROR(unpack());
        std::error_code failure;
        std::filesystem::remove(nativePath(m_sourcePath), failure);
        return failure ? ORX_ECATCH(refused(m_sourcePath, failure)) : Error();
    }

private:
    Error unpack() const {
        // What an interrupted run unpacked, before it could remove the packed file.
        std::error_code failure;
        std::filesystem::remove_all(nativePath(m_targetPath), failure);
        if (failure)
            return refused(m_targetPath, failure);
        vonk::Vonk file(m_sourcePath);
        ORX_RETURN_ON_ERROR(file.open());
        vonk::WorkWatch watch;
        watch.isCanceled = [this] { return isCancelRequested(); };
        return ORX_ECATCH(file.unpack(m_targetPath, watch));
    }

    const QString m_sourcePath;
    const QString m_targetPath;
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

QString HalvaneDownloadVonkTask::targetPath() const {
    return m_parameters.targetDir.absoluteFilePath(m_parameters.reference->name());
}

Error HalvaneDownloadVonkTask::initialize() {
    ORX_RETURN_ON_ERROR(DownloadNames::check(m_parameters.reference->name()));
    const QPointer<HalvaneDownloadVonkTask> guard(this);
    Q_EMIT progressInitiated(TransferProgress::maximum);
    if (!guard || !isRunning())
        return Error();
    HalvaneFileDownloadParameters packed = m_parameters;
    packed.targetName = QStringLiteral(".packed");
    packed.isIntermediate = true;
    packed.keepSame = true; // an interrupted run may have it already
    auto task = std::make_unique<HalvaneDownloadFileTask>(packed);
    connect(task.get(), &BaseTask::progress, this, [this](int value, int maximum) {
        showProgress(maximum > 0 ? value * percentsOfDownload / maximum : 0);
    });
    execSubtask(std::move(task), [this](HalvaneDownloadFileTask* done) { onDownloaded(done->targetPath()); });
    return Error();
}

void HalvaneDownloadVonkTask::onDownloaded(const QString& packedPath) {
    execSubtask(
        std::unique_ptr<BaseTask>(std::make_unique<UnpackStepTask>(packedPath, targetPath())),
        [this](BaseTask*) { showProgress(TransferProgress::maximum); },
        [this, packedPath](BaseTask* step) { onUnpackFailed(packedPath, step->error()); });
}

void HalvaneDownloadVonkTask::onUnpackFailed(const QString& packedPath, const Error& error) {
    if (isCanceled())
        return;
    if (!isOfTheContent(error)) {
        finish(ORX_ECATCH(Error(error)));
        return;
    }
    std::error_code failure;
    std::filesystem::rename(nativePath(packedPath), nativePath(targetPath()), failure);
    if (failure) {
        finish(ORX_ECATCH(refused(packedPath, failure)));
        return;
    }
    addWarning(tr("\"%1\" is kept as the file that it is, since it cannot be unpacked: %2")
                   .arg(m_parameters.reference->displayText(), error.errorMessage()));
    showProgress(TransferProgress::maximum);
}

void HalvaneDownloadVonkTask::showProgress(int percent) {
    if (percent > std::exchange(m_percent, std::max(m_percent, percent)))
        Q_EMIT progress(percent, TransferProgress::maximum);
}

} // namespace orx
