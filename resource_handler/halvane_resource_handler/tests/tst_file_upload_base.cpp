// What every single-file upload shares: parameters, progress budget, and the uploaded file's way into the
// cache.
#include "UploadFixture.h"

namespace orx::testing {
namespace {

//! An upload that sends nothing: it ends as it is told.
class PretendedUpload : public HalvaneFileUploadTaskBase {
public:
    explicit PretendedUpload(const HalvaneFileUploadParameters& parameters, QObject* parent = nullptr)
        : HalvaneFileUploadTaskBase(parameters, QStringLiteral("Upload:Pretended"), parent) {}

    UploadDataType uploadDataType() const override { return UploadDataType::RegularFile; }
    int currentProgress() const override { return 0; }
    int maxProgress() const override { return HalvaneFileUploadTaskBase::maxProgress(parameters()); }
    static int maxProgressFor(bool hasMetadata) {
        return HalvaneFileUploadTaskBase::maxProgress(hasMetadata);
    }
    using HalvaneFileUploadTaskBase::setUploadedFile;

    Error ending;

protected:
    Error initialize() override { return ending; }
};

//! Makes the cache entry in a way of its own.
class OwnWayUpload : public PretendedUpload {
public:
    using PretendedUpload::PretendedUpload;
    int calls = 0;

protected:
    Error addToCache(const QSharedPointer<RemoteResourceHandler>&) override {
        ++calls;
        return Error(ErrorCode::StorageFull, QStringLiteral("the cache is full"));
    }
};

class FileUploadBase : public UploadTest {
protected:
    FileUploadBase() : path(makeFile(QStringLiteral("run.mzML"))), upload(uploadOf(path)) {}

    void pretendUploaded(int id = 12, int version = 3, const QString& name = QStringLiteral("run.mzML")) {
        upload.setUploadedFile(HalvaneUploadedFileInfo(HalvaneApiReference{id, version}, path, name));
    }

    QString path;
    PretendedUpload upload;
    ErrorLog errors;
};

TEST_F(FileUploadBase, HasAMetaObjectWithoutSignalsAndSlots) {
    const QMetaObject& base = HalvaneFileUploadTaskBase::staticMetaObject;
    EXPECT_STREQ(base.className(), "orx::HalvaneFileUploadTaskBase");
    EXPECT_EQ(base.superClass(), &HalvaneUploadTask::staticMetaObject);
    EXPECT_EQ(base.methodCount(), base.methodOffset());
    EXPECT_TRUE(std::is_abstract_v<HalvaneFileUploadTaskBase>);
}

TEST_F(FileUploadBase, ConstructionTakesNameParentAndParametersAsTheyAre) {
    HalvaneFileUploadParameters parameters = uploadOf(path, 7, ItemType::File);
    parameters.fileSize = 99; // not looked up again
    QObject parent;
    const auto* const task = new PretendedUpload(parameters, &parent);
    EXPECT_EQ(task->name(), QStringLiteral("Upload:Pretended"));
    EXPECT_EQ(task->parent(), &parent);
    EXPECT_EQ(task->parameters().fileSize, 99);
    EXPECT_EQ(task->path(), path);
    EXPECT_EQ(task->targetId(), 7);
    EXPECT_EQ(task->targetType(), ItemType::File);
    EXPECT_FALSE(task->uploadedFile().has_value());
}

TEST_F(FileUploadBase, SetParametersTakesTheSizeFromTheDisk) {
    HalvaneFileUploadParameters parameters = uploadOf(path, 9);
    parameters.fileSize = 99;
    parameters.alias = QStringLiteral("first run");
    upload.setParameters(parameters);
    EXPECT_EQ(upload.parameters().fileSize, 12);
    EXPECT_EQ(upload.parameters().alias, QStringLiteral("first run"));
    EXPECT_EQ(upload.targetId(), 9);
}

TEST_F(FileUploadBase, SetParametersKeepsTheGivenSizeOfAPathThatCannotBeRead) {
    HalvaneFileUploadParameters parameters = uploadOf(filePath(QStringLiteral("missing")));
    parameters.fileSize = 99;
    upload.setParameters(parameters);
    EXPECT_EQ(upload.parameters().fileSize, 99);
}

TEST_F(FileUploadBase, ParametersAreACopy) {
    HalvaneFileUploadParameters copy = upload.parameters();
    copy.targetId = 77;
    EXPECT_EQ(upload.targetId(), ScriptedHalvaneService::RootFolder);
}

TEST_F(FileUploadBase, MaximumIs102WithoutAndOneMoreWithAListOfMetadata) {
    HalvaneFileUploadParameters parameters = uploadOf(path);
    EXPECT_EQ(HalvaneFileUploadTaskBase::maxProgress(parameters), 102);
    parameters.extendedMetadata = QList<HalvaneCompactExtendedMetaDataValue>(); // empty, but there
    EXPECT_EQ(HalvaneFileUploadTaskBase::maxProgress(parameters), 103);
    parameters.extendedMetadata->append({QStringLiteral("operator"), QStringLiteral("anna")});
    EXPECT_EQ(HalvaneFileUploadTaskBase::maxProgress(parameters), 103);
    EXPECT_EQ(PretendedUpload::maxProgressFor(false), 102);
    EXPECT_EQ(PretendedUpload::maxProgressFor(true), 103);
}

TEST_F(FileUploadBase, AnEmptyRecordClearsTheUploadedFile) {
    pretendUploaded();
    EXPECT_EQ(upload.uploadedFile()->reference().fileId, 12);
    upload.setUploadedFile(std::nullopt);
    EXPECT_FALSE(upload.uploadedFile().has_value());
}

TEST_F(FileUploadBase, TheUploadedFileIsCached) {
    CacheProbe cache;
    pretendUploaded();
    EXPECT_FALSE(run(upload).hasError());
    EXPECT_EQ(cache.lookedUp, QStringLiteral("file:12@3"));
    EXPECT_EQ(cache.content(), "twelve bytes");
    EXPECT_TRUE(ErrorLog::lines().isEmpty());
}

TEST_F(FileUploadBase, WhatIsCachedIsGivenAsAPathOfAFile) {
    CacheProbe cache;
    pretendUploaded();
    upload.setParameters(uploadOf(client.workDir()));
    EXPECT_FALSE(run(upload).hasError());
    EXPECT_TRUE(cache.isEmpty());
    EXPECT_TRUE(
        ErrorLog::mentions(QStringLiteral("\"%1\" is a directory, not a file.").arg(client.workDir())));
}

TEST_F(FileUploadBase, TheFileIsCachedBeforeFinishedIsEmitted) {
    CacheProbe cache;
    pretendUploaded();
    int askedAtTheEnd = -1;
    QObject::connect(&upload, &BaseTask::finished, &upload, [&] { askedAtTheEnd = cache.placesAsked; });
    EXPECT_FALSE(run(upload).hasError());
    EXPECT_EQ(askedAtTheEnd, 1);
    EXPECT_EQ(cache.placesAsked, 1);
}

TEST_F(FileUploadBase, TheCurrentLocalPathIsCached) {
    CacheProbe cache;
    pretendUploaded();
    const QString other = makeFile(QStringLiteral("other.mzML"), "another content");
    upload.setParameters(uploadOf(other));
    EXPECT_FALSE(run(upload).hasError());
    EXPECT_EQ(cache.content(), "another content");
}

TEST_F(FileUploadBase, WithoutCachingNoHandlerIsLookedUp) {
    CacheProbe cache;
    pretendUploaded();
    upload.setCachedOnFinished(false);
    EXPECT_FALSE(run(upload).hasError());
    EXPECT_EQ(cache.lookups, 0);
    EXPECT_TRUE(ErrorLog::lines().isEmpty());
}

TEST_F(FileUploadBase, AFailedUploadIsNotCachedAndItsErrorIsStamped) {
    CacheProbe cache;
    pretendUploaded();
    upload.ending = Error(ErrorCode::FileChanged, QStringLiteral("it changed"));
    const Error error = run(upload);
    EXPECT_TRUE(error.is(ErrorCode::FileChanged));
    EXPECT_EQ(error.errorMessage(), QStringLiteral("it changed"));
    EXPECT_EQ(cache.lookups, 0);
    const auto places = error.trace();
    EXPECT_TRUE(std::any_of(places.begin(), places.end(), [](const Error::TraceEntry& place) {
        return place.function.contains(QStringLiteral("HalvaneFileUploadTaskBase::doFinish"));
    }));
}

TEST_F(FileUploadBase, ACancelledUploadIsNotCached) {
    CacheProbe cache;
    pretendUploaded();
    upload.cancel();
    EXPECT_TRUE(run(upload).isCanceled());
    EXPECT_EQ(cache.lookups, 0);
}

TEST_F(FileUploadBase, AnUploadThatNeverSetItsFileStillSucceeds) {
    CacheProbe cache;
    EXPECT_FALSE(run(upload).hasError());
    EXPECT_FALSE(upload.hasError());
    EXPECT_EQ(cache.lookups, 0);
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("The file was not uploaded | code 1 ")));
}

TEST_F(FileUploadBase, AReferenceThatCannotBeMadeIsNoFailureOfTheUpload) {
    CacheProbe cache;
    pretendUploaded(12, 0); // there is no version 0
    EXPECT_FALSE(run(upload).hasError());
    EXPECT_EQ(cache.lookups, 0);
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("HalvaneFileUploadTaskBase::addToCache")));
}

TEST_F(FileUploadBase, AMissingHandlerIsNoFailureOfTheUpload) {
    CacheProbe cache(CacheProbe::Makes::Errors);
    pretendUploaded();
    EXPECT_FALSE(run(upload).hasError());
    EXPECT_EQ(cache.lookups, 1);
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("no handler today")));
}

TEST_F(FileUploadBase, ASchemeThatNobodyRegisteredIsNoFailureOfTheUpload) {
    pretendUploaded();
    EXPECT_FALSE(run(upload).hasError());
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("HalvaneFileUploadTaskBase::addToCache")));
}

TEST_F(FileUploadBase, AHandlerThatIsNotRemoteIsNoFailureOfTheUpload) {
    CacheProbe cache(CacheProbe::Makes::OtherHandlers);
    pretendUploaded();
    EXPECT_FALSE(run(upload).hasError());
    EXPECT_TRUE(cache.isEmpty());
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("Invalid resource handler. | code 2 ")));
}

TEST_F(FileUploadBase, AHandlerThatCannotCacheIsNoFailureOfTheUpload) {
    CacheProbe cache;
    cache.subPath = QStringLiteral("../outside");
    pretendUploaded();
    EXPECT_FALSE(run(upload).hasError());
    EXPECT_EQ(cache.placesAsked, 1);
    EXPECT_TRUE(cache.isEmpty());
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("../outside")));
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("HalvaneFileUploadTaskBase::doFinish")));
}

TEST_F(FileUploadBase, ASubclassMayMakeTheCacheEntryInItsOwnWay) {
    CacheProbe cache;
    OwnWayUpload own(uploadOf(path));
    own.setUploadedFile(
        HalvaneUploadedFileInfo(HalvaneApiReference{12, 3}, path, QStringLiteral("run.mzML")));
    EXPECT_FALSE(run(own).hasError());
    EXPECT_EQ(own.calls, 1);
    EXPECT_TRUE(cache.isEmpty());
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("the cache is full")));
}

TEST_F(FileUploadBase, TheCachingMessagesAreTranslatedInThePlainContext) {
    const ContextTranslator translator;
    EXPECT_FALSE(run(upload).hasError());
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("QObject|The file was not uploaded | code 1 ")));
    CacheProbe cache(CacheProbe::Makes::OtherHandlers);
    PretendedUpload second(uploadOf(path));
    second.setUploadedFile(
        HalvaneUploadedFileInfo(HalvaneApiReference{12, 3}, path, QStringLiteral("run.mzML")));
    EXPECT_FALSE(run(second).hasError());
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("QObject|Invalid resource handler. | code 2 ")));
}

} // namespace
} // namespace orx::testing
