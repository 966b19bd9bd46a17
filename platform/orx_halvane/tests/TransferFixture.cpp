#include "TransferFixture.h"

#include <HalvaneTransferMonitor.h>
#include <HalvaneUploadSessions.h>
#include <JournalHold.h>
#include <OwnerInbox.h>

#include <QDir>

namespace orx::testing {

void TransferFixture::SetUp() {
    HalvaneStateFixture::SetUp();
    path = makeFile(QStringLiteral("run 1.mzML"), "abcdefghij");
    HalvaneTransferMonitor::reset();
}

void TransferFixture::TearDown() {
    for (int id = 1; id <= fake.uploads.size(); ++id)
        HalvaneUploadSessions::take(id);
    JournalHold::awaitReleases();
    HalvaneStateFixture::TearDown();
}

void TransferFixture::writeFile(const QByteArray& content) const {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    ASSERT_EQ(file.write(content), content.size());
}

HalvaneFileUploadParameters TransferFixture::parameters(int folderId) const {
    const auto made =
        HalvaneFileUploadParameters::create(path, folderId, HalvaneResourceReference::ItemType::Folder,
                                            QString(), std::nullopt, {}, std::nullopt);
    EXPECT_TRUE(made) << qPrintable(made.errorMessage());
    return *made;
}

void TransferFixture::observe(BaseTask& task, Reported& reported) {
    QObject::connect(&task, &BaseTask::progress, &task, [&reported](int value, int maximum) {
        EXPECT_EQ(maximum, 100);
        reported.progress.append(value);
    });
    QObject::connect(&task, &BaseTask::finished, &task, [&reported] { ++reported.finished; });
}

Error TransferFixture::run(BaseTask& task, Reported* reported) {
    Reported own;
    observe(task, reported ? *reported : own);
    task.exec();
    Error error = task.waitForFinished(60'000);
    processUntil([&task] { return task.isIdle(); });
    EXPECT_EQ((reported ? *reported : own).finished, 1);
    return error;
}

void TransferFixture::processUntil(const std::function<bool()>& condition) {
    EXPECT_TRUE(OwnerInbox::ofThisThread()->waitUntil(condition, std::chrono::minutes(1)));
}

int TransferFixture::init() {
    HalvaneInitUploadTask task(parameters());
    const Error error = run(task);
    EXPECT_FALSE(error.hasError()) << qPrintable(error.traceText());
    return task.uploadId();
}

HalvanePostChunksTask::Input TransferFixture::input(int uploadId) const {
    return {uploadId, QFileInfo(path).size(), path};
}

Error TransferFixture::postChunks(int uploadId, Reported* reported) {
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    HalvanePostChunksTask task(input(uploadId), &file);
    return run(task, reported);
}

Error TransferFixture::finalize(int uploadId, HalvaneApiReference* reference) {
    HalvaneFinalizeUploadTask task({{QStringLiteral("upload_id"), uploadId}});
    Error error = run(task);
    if (reference)
        *reference = task.createdFileReference();
    return error;
}

QList<HalvaneUploadRecord> TransferFixture::freeRecords() const {
    JournalHold::awaitReleases();
    const auto found = HalvaneUploadJournal::unsettled(recordFor(path));
    EXPECT_TRUE(found) << qPrintable(found.errorMessage());
    return found.valueOr(QList<HalvaneUploadRecord>());
}

int TransferFixture::descriptorsOfFile() const {
    int count = 0;
    const QDir descriptors(QStringLiteral("/proc/self/fd"));
    for (const QString& entry : descriptors.entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot))
        count += QFile::symLinkTarget(descriptors.filePath(entry)) == path;
    return count;
}

} // namespace orx::testing
