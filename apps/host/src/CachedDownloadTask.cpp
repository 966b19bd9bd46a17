#include "CachedDownloadTask.h"

#include "ErrorText.h"
#include "Resources.h"

#include <ContentHash.h>
#include <HalvaneHistory.h>
#include <WorkerStepTask.h>

#include <QFile>
#include <QFileInfo>
#include <QStorageInfo>

namespace halvane::host {

using orx::BaseTask;
using orx::Error;
using orx::ErrorCode;
using orx::ErrorDomain;
using orx::ResourceHandler;
using orx::WorkerStepTask;

namespace {

// One job of a worker hashes so much, so that an interruption is heard between two.
constexpr qint64 hashedAtATime = 256 * 1024 * 1024;
constexpr qint64 readAtATime = 1024 * 1024;

// Whether a retrieval failed here: neither at the server or on the way to it, nor because somebody asked it
// to stop. What the server sent and what it said of it is the server's matter too.
bool failedHere(const Error& error) {
    if (error.domain() == ErrorDomain::Server || error.domain() == ErrorDomain::Network)
        return false;
    return !error.isCanceled() && !error.is(ErrorCode::NotAuthenticated) && !error.is(ErrorCode::TimedOut) &&
           !error.is(ErrorCode::ChecksumMismatch);
}

bool isOfTheSource(const Error& error) {
    return error.is(ErrorCode::NotFound) || error.is(ErrorCode::FileNotReadable) ||
           error.is(ErrorCode::FileChanged);
}

// Said before anything is fetched that could not be put there afterwards.
Error checkTarget(const QString& path, qint64 size) {
    const QString directory = QFileInfo(path).absolutePath();
    if (!QFileInfo(directory).isWritable())
        return Error(ErrorCode::FileNotWritable,
                     QStringLiteral("\"%1\" cannot be written: nothing can be made in the directory \"%2\".")
                         .arg(path, directory));
    const QStorageInfo storage(directory);
    if (storage.isValid() && storage.bytesTotal() > 0 && storage.bytesAvailable() < size)
        return Error(ErrorCode::StorageFull,
                     QStringLiteral("There is no room for \"%1\": %2 bytes are missing; free some space.")
                         .arg(path, QString::number(size - storage.bytesAvailable())));
    return {};
}

} // namespace

struct CachedDownloadTask::Hashing {
    explicit Hashing(const QString& path) : file(path) {}

    Error more() {
        if (!file.isOpen()) {
            const auto now = orx::FileCopy::stampOf(file.fileName());
            ORX_RETURN_ON_ERROR(now.error());
            stamp = now.value();
            if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
                return failure();
        }
        for (qint64 done = 0; done < hashedAtATime && !atEnd; done += readAtATime) {
            const qint64 bytes = file.read(block.data(), block.size());
            if (bytes < 0)
                return failure();
            hash.add(block.constData(), bytes);
            atEnd = bytes == 0;
        }
        return {};
    }
    Error failure() const {
        return Error(ErrorCode::FileNotReadable,
                     QStringLiteral("Could not read \"%1\": %2.").arg(file.fileName(), file.errorString()));
    }

    QFile file;
    //! Before the first byte was read.
    orx::FileCopy::Stamp stamp;
    QByteArray block = QByteArray(readAtATime, Qt::Uninitialized);
    orx::ContentHash hash;
    bool atEnd = false;
};

CachedDownloadTask::CachedDownloadTask(const RemoteItem& item, const QString& targetPath,
                                       orx::FileCopy::IfExists ifExists, QObject* parent)
    : ComplexTask(QStringLiteral("CachedDownload(%1)").arg(item.reference()), parent)
    , m_item(item)
    , m_targetPath(targetPath)
    , m_ifExists(ifExists) {}

CachedDownloadTask::~CachedDownloadTask() = default;

void CachedDownloadTask::fail(const Error& error, bool cacheFailed) {
    m_cacheFailed = cacheFailed;
    finish(error);
}

Error CachedDownloadTask::initialize() {
    const auto handler = handlerOf(m_item);
    ORX_RETURN_ON_ERROR(handler.error());
    m_handler = handler.value();
    ORX_RETURN_ON_ERROR(checkTarget(m_targetPath, 0));
    retrieve();
    return {};
}

void CachedDownloadTask::retrieve() {
    auto retrieval = m_handler->retrieveAsync(ResourceHandler::AsyncProcessingType::RunByCaller, nullptr);
    if (retrieval.hasError())
        return fail(retrieval.error(), true);
    m_cachePath = m_handler->expectedPath()->toString();
    m_wasInCache = !retrieval.value();
    if (m_wasInCache)
        return verify();
    if (const Error error = checkTarget(m_targetPath, m_item.size); error.hasError())
        return fail(error, false);
    execSubtask(
        std::unique_ptr<BaseTask>(std::move(retrieval).value()), [this](BaseTask*) { copy(); },
        [this](BaseTask* task) { fail(task->error(), failedHere(task->error())); });
}

// Size and time of the entry are right; whether its bytes still are only they can tell.
void CachedDownloadTask::verify() {
    if (m_item.sha256.isEmpty())
        return copy();
    m_hashing = std::make_shared<Hashing>(m_cachePath);
    hashMore();
}

void CachedDownloadTask::hashMore() {
    execSubtask(
        std::unique_ptr<BaseTask>(std::make_unique<WorkerStepTask>(
            QStringLiteral("HashCachedFile"), [hashing = m_hashing] { return hashing->more(); })),
        [this](BaseTask*) { m_hashing->atEnd ? onHashed() : hashMore(); },
        [this](BaseTask* step) { fail(step->error(), !step->error().isCanceled()); });
}

void CachedDownloadTask::onHashed() {
    const QString digest = QString::fromLatin1(m_hashing->hash.hexDigest());
    const orx::FileCopy::Stamp stamp = m_hashing->stamp;
    m_hashing.reset();
    if (digest == m_item.sha256) {
        m_hashed = stamp;
        return copy();
    }
    addWarning(
        QStringLiteral("The copy of \"%1\" in the cache is not what the server has; it is fetched anew.")
            .arg(m_item.name));
    m_handler->overrideRetrieveMode(ResourceHandler::RetrieveMode::Refresh);
    retrieve();
}

void CachedDownloadTask::doCancel() {
    *m_givesUp = true;
    ComplexTask::doCancel();
}

void CachedDownloadTask::copy() {
    const auto warning = std::make_shared<QString>();
    const auto job = [source = m_cachePath, target = m_targetPath, ifExists = m_ifExists, item = m_item,
                      warning, handler = m_handler, givesUp = m_givesUp, hashed = m_hashed]() -> Error {
        ORX_RETURN_ON_ERROR(orx::FileCopy::file(
            source, target, ifExists, [givesUp] { return givesUp->load(); }, hashed));
        *warning = orx::HalvaneHistory().setFileVersion(target, item.id, item.version).errorMessage();
        return {};
    };
    execSubtask(
        std::unique_ptr<BaseTask>(std::make_unique<WorkerStepTask>(QStringLiteral("CopyFromCache"), job)),
        [this, warning](BaseTask*) {
            if (!warning->isEmpty())
                addWarning(
                    QStringLiteral("The file \"%1\" was downloaded, but that could not be recorded here: %2")
                        .arg(m_targetPath, *warning));
        },
        [this](BaseTask* step) { fail(step->error(), isOfTheSource(step->error())); });
}

} // namespace halvane::host
