#include "TransferFixture.h"

#include <ContentHash.h>
#include <DownloadBody.h>
#include <HalvaneAcknowledgedContents.h>
#include <HalvaneConnection.h>
#include <HalvaneDownloadFileTask.h>
#include <HalvaneError.h>
#include <HalvaneHistory.h>
#include <HalvaneTransferMonitor.h>
#include <NetworkError.h>

#include <QDir>
#include <QFileInfo>

#include <algorithm>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

using namespace orx;
using orx::testing::FakeHalvane;
using orx::testing::Reported;

namespace {

QByteArray sha256(const QByteArray& content) {
    ContentHash hash;
    hash.add(content.constData(), content.size());
    return hash.hexDigest();
}

class DownloadFileTask : public orx::testing::TransferFixture {
protected:
    void SetUp() override {
        TransferFixture::SetUp();
        ASSERT_TRUE(QDir(m_dir.path()).mkdir(QStringLiteral("out")));
        serve("first version");
        serve(content);
    }
    void serve(const QByteArray& bytes, const QJsonValue& modified = QJsonValue()) {
        fake.addVersion(12, {bytes, sha256(bytes), modified});
    }
    QDir out() const { return QDir(m_dir.filePath(QStringLiteral("out"))); }
    QStringList entries() const {
        return out().entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
    }
    QByteArray get(const QString& entry) const {
        QFile file(out().filePath(entry));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(nothing)");
    }
    void put(const QString& entry, const QByteArray& bytes) const {
        QFile file(out().filePath(entry));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(bytes), bytes.size());
    }
    HalvaneFileDownloadParameters download(const QString& targetName = QString(), int version = 2) const {
        HalvaneFileDownloadParameters made;
        made.reference = *HalvaneFileResourceReference::create(12, version, QStringLiteral("run.mzML"));
        made.targetDir = out();
        made.targetName = targetName;
        return made;
    }
    NetworkRequest contentRequest(int index) const {
        QList<NetworkRequest> found;
        for (qsizetype i = 0; i < fake.log.size(); ++i) {
            if (fake.log.at(i).endsWith("/content"))
                found.append(fake.requests.at(i));
        }
        return found.value(index);
    }

    const QByteArray content = "what the instrument measured that day";
    const QString name = QStringLiteral("run.mzML");
    const QString partial = QStringLiteral(".run.mzML.halvane-part-12-2");
};

TEST_F(DownloadFileTask, BringsAVersionIntoTheDirectory) {
    HalvaneDownloadFileTask task(download());
    Reported reported;
    const Error error = run(task, &reported);
    ASSERT_FALSE(error.hasError()) << qPrintable(error.traceText());
    EXPECT_EQ(entries(), QStringList{name});
    EXPECT_EQ(get(name), content);
    EXPECT_EQ(task.targetPath(), out().filePath(name));
    EXPECT_EQ(task.sha256().toLatin1(), sha256(content));
    EXPECT_EQ(HalvaneAcknowledgedContents::find(HalvaneConnection::instance().serverKey(), 12, 2),
              sha256(content));
    EXPECT_EQ(task.size(), content.size());
    EXPECT_EQ(task.version(), 2);
    EXPECT_TRUE(std::is_sorted(reported.progress.begin(), reported.progress.end()));
    EXPECT_EQ(reported.progress.last(), 100);
    EXPECT_EQ(reported.progress.count(100), 1);
    EXPECT_TRUE(NetworkRequest::header(contentRequest(0).headers, "Range").isEmpty());
    const auto recorded = HalvaneHistory().fileVersion(task.targetPath(), 12);
    ASSERT_TRUE(recorded);
    EXPECT_EQ(*recorded, 2);
    EXPECT_EQ(HalvaneTransferMonitor::snapshot().bytesDone, content.size());
}

TEST_F(DownloadFileTask, AFileThatIsTheVersionAlreadyStaysWithoutItsContentBeingFetched) {
    put(name, content);
    const QDateTime before = QFileInfo(out().filePath(name)).lastModified();
    auto keeping = download();
    keeping.keepSame = true;
    HalvaneDownloadFileTask task(keeping);
    Reported reported;
    ASSERT_FALSE(run(task, &reported).hasError());
    EXPECT_EQ(entries(), QStringList{name});
    EXPECT_EQ(get(name), content);
    EXPECT_EQ(QFileInfo(out().filePath(name)).lastModified(), before);
    EXPECT_EQ(task.sha256().toLatin1(), sha256(content));
    EXPECT_EQ(reported.progress.last(), 100);
    EXPECT_TRUE(std::none_of(fake.log.begin(), fake.log.end(),
                             [](const QByteArray& line) { return line.endsWith("/content"); }));
}

TEST_F(DownloadFileTask, AFileOfAnotherContentIsReplacedWhenOnlyTheSameMayStay) {
    QByteArray other = content;
    other[0] = 'W'; // of the same size
    for (const QByteArray& there : {other, QByteArray("shorter"), QByteArray()}) {
        put(name, there);
        auto keeping = download();
        keeping.keepSame = true;
        HalvaneDownloadFileTask task(keeping);
        ASSERT_FALSE(run(task).hasError());
        EXPECT_EQ(get(name), content);
        EXPECT_EQ(entries(), QStringList{name});
    }
}

TEST_F(DownloadFileTask, WhatMayNotBeReplacedAfterAllStaysAndSoDoesWhatWasFetched) {
    put(name, "of an instrument");
    auto asking = download();
    asking.overwrite = true;
    int asked = 0;
    asking.mayReplace = [&] {
        EXPECT_EQ(get(partial), content) << "all of it is there";
        return ++asked > 1;
    };
    HalvaneDownloadFileTask refused(asking);
    const Error error = run(refused);
    EXPECT_TRUE(error.is(ErrorCode::FileChanged)) << qPrintable(error.errorMessage());
    EXPECT_TRUE(error.errorMessage().contains(QStringLiteral("try again when")))
        << qPrintable(error.errorMessage());
    EXPECT_TRUE(error.errorMessage().contains(out().filePath(name)));
    EXPECT_EQ(get(name), "of an instrument");
    EXPECT_EQ(entries(), (QStringList{partial, name}));
    EXPECT_FALSE(HalvaneHistory().fileVersion(refused.targetPath(), 12).value().has_value());
    const int calls = fake.count("/content");

    HalvaneDownloadFileTask allowed(asking);
    ASSERT_FALSE(run(allowed).hasError());
    EXPECT_EQ(asked, 2);
    EXPECT_EQ(get(name), content);
    EXPECT_EQ(entries(), QStringList{name});
    EXPECT_EQ(fake.count("/content"), calls);
}

TEST_F(DownloadFileTask, NobodyIsAskedAboutWhatDiffersFromItsChecksum) {
    put(name, "of an instrument");
    put(partial, QByteArray(content.size(), 'x'));
    auto asking = download();
    asking.overwrite = true;
    asking.mayReplace = [&] {
        EXPECT_EQ(get(partial), content);
        return true;
    };
    HalvaneDownloadFileTask task(asking);
    ASSERT_FALSE(run(task).hasError());
    EXPECT_EQ(get(name), content);
}

TEST_F(DownloadFileTask, AnOlderVersionComesWhenItIsAskedFor) {
    HalvaneDownloadFileTask task(download(QStringLiteral("old"), 1));
    ASSERT_FALSE(run(task).hasError());
    EXPECT_EQ(get(QStringLiteral("old")), "first version");
    EXPECT_EQ(task.version(), 1);
}

TEST_F(DownloadFileTask, GivesTheFileTheTimeOfItsSource) {
    serve("dated", QStringLiteral("2020-01-02T03:04:05.678Z"));
    HalvaneDownloadFileTask task(download({}, 3));
    ASSERT_FALSE(run(task).hasError());
    EXPECT_EQ(QFileInfo(out().filePath(name)).lastModified().toUTC(),
              QDateTime(QDate(2020, 1, 2), QTime(3, 4, 5, 678), Qt::UTC));
}

TEST_F(DownloadFileTask, AnEmptyFileNeedsNoContentRequest) {
    serve("");
    Reported reported;
    HalvaneDownloadFileTask task(download({}, 3));
    ASSERT_FALSE(run(task, &reported).hasError());
    EXPECT_EQ(get(name), "");
    EXPECT_EQ(fake.count("/content"), 0);
    EXPECT_EQ(reported.progress, QList<int>{100});
}

TEST_F(DownloadFileTask, GoesOnFromWhereAConnectionWasLost) {
    fake.expectFault({"GET /content", FakeHalvane::Fault::CutBody, {}, 10});
    fake.expectFault({"GET /content", FakeHalvane::Fault::CutBody, {}, 7});
    HalvaneDownloadFileTask task(download());
    Reported reported;
    ASSERT_FALSE(run(task, &reported).hasError());
    EXPECT_EQ(get(name), content);
    EXPECT_EQ(NetworkRequest::header(contentRequest(1).headers, "Range"), "bytes=10-");
    EXPECT_EQ(NetworkRequest::header(contentRequest(1).headers, "If-Range"),
              "\"12-2-" + sha256(content) + "\"");
    EXPECT_EQ(NetworkRequest::header(contentRequest(2).headers, "Range"), "bytes=17-");
    EXPECT_TRUE(std::is_sorted(reported.progress.begin(), reported.progress.end()));
    const HalvaneTransferSnapshot sums = HalvaneTransferMonitor::snapshot();
    EXPECT_EQ(sums.bytesDone, content.size());
    EXPECT_EQ(sums.bytesMoved, content.size()) << "no byte crossed the network twice";
}

TEST_F(DownloadFileTask, ALaterRunResumesWhatAnEarlierOneLeft) {
    put(partial, content.left(20));
    HalvaneDownloadFileTask task(download());
    Reported reported;
    ASSERT_FALSE(run(task, &reported).hasError());
    EXPECT_EQ(get(name), content);
    EXPECT_EQ(entries(), QStringList{name});
    EXPECT_EQ(NetworkRequest::header(contentRequest(0).headers, "Range"), "bytes=20-");
    EXPECT_EQ(reported.progress.first(), 20 * 100 / content.size()) << "resumed bytes count";
    EXPECT_EQ(HalvaneTransferMonitor::snapshot().bytesResumed, 20);
}

TEST_F(DownloadFileTask, WhatIsWholeAlreadyOnlyGetsItsName) {
    put(partial, content);
    HalvaneDownloadFileTask task(download());
    ASSERT_FALSE(run(task).hasError());
    EXPECT_EQ(get(name), content);
    EXPECT_EQ(fake.count("/content"), 0);
}

TEST_F(DownloadFileTask, WhatWasLeftOfAnotherContentIsFetchedAfreshOnce) {
    put(partial, QByteArray(20, '?'));
    HalvaneDownloadFileTask task(download());
    ASSERT_FALSE(run(task).hasError());
    EXPECT_EQ(get(name), content);
    EXPECT_EQ(fake.count("/content"), 2);
    EXPECT_TRUE(NetworkRequest::header(contentRequest(1).headers, "Range").isEmpty());
}

TEST_F(DownloadFileTask, MoreThanTheWholeWasLeftSoItStartsOver) {
    put(partial, content + "and more");
    HalvaneDownloadFileTask task(download());
    ASSERT_FALSE(run(task).hasError());
    EXPECT_EQ(get(name), content);
}

TEST_F(DownloadFileTask, AServerWithoutRangesSendsTheWhole) {
    fake.honoursRanges = false;
    put(partial, content.left(20));
    HalvaneDownloadFileTask task(download());
    ASSERT_FALSE(run(task).hasError());
    EXPECT_EQ(get(name), content);
}

TEST_F(DownloadFileTask, ADamagedContentIsThrownAway) {
    fake.files[12][1].content[3] = 'X';
    HalvaneDownloadFileTask task(download());
    const Error error = run(task);
    EXPECT_TRUE(error.is(ErrorCode::ChecksumMismatch));
    EXPECT_TRUE(error.errorMessage().contains(out().filePath(name)));
    EXPECT_EQ(entries(), QStringList());
    EXPECT_TRUE(task.sha256().isEmpty());
}

TEST_F(DownloadFileTask, GivesUpAfterAttemptsThatBringNothing) {
    for (int i = 0; i < 50; ++i)
        fake.expectFault({"GET /content", FakeHalvane::Fault::Answer, FakeHalvane::failure(404, 3, "gone")});
    HalvaneDownloadFileTask task(download());
    EXPECT_TRUE(isHalvaneError(run(task), HalvaneServerErrorCode::NotFound));
    EXPECT_EQ(fake.count("/content"), 1) << "a refusal is not worth another attempt";
    EXPECT_EQ(entries(), QStringList()) << "nothing came, nothing is left";
}

TEST_F(DownloadFileTask, ABusyServerIsAskedAgain) {
    fake.expectFault({"GET /content", FakeHalvane::Fault::Answer, FakeHalvane::failure(503, 12)});
    fake.expectFault({"GET /content", FakeHalvane::Fault::Lose});
    HalvaneDownloadFileTask task(download());
    ASSERT_FALSE(run(task).hasError());
    EXPECT_EQ(get(name), content);
    EXPECT_EQ(fake.count("/content"), 3);
}

TEST_F(DownloadFileTask, ALostLoginInTheMiddleKeepsWhatArrived) {
    fake.expectFault({"GET /content", FakeHalvane::Fault::CutBody, {}, 12});
    fake.expectFault({"GET /content", FakeHalvane::Fault::Answer, FakeHalvane::failure(401, 2, "expired")});
    {
        HalvaneDownloadFileTask task(download());
        EXPECT_TRUE(isHalvaneError(run(task), HalvaneServerErrorCode::NotAuthenticated));
    }
    EXPECT_EQ(get(partial), content.left(12));
    HalvaneDownloadFileTask again(download());
    ASSERT_FALSE(run(again).hasError());
    EXPECT_EQ(get(name), content);
}

TEST_F(DownloadFileTask, AnUnknownVersionIsNotFound) {
    HalvaneDownloadFileTask task(download({}, 9));
    const Error error = run(task);
    EXPECT_TRUE(isHalvaneError(error, HalvaneServerErrorCode::NotFound));
    EXPECT_TRUE(error.errorMessage().contains(QStringLiteral("version 9")));
    EXPECT_EQ(entries(), QStringList());
}

TEST_F(DownloadFileTask, AnExistingTargetIsRefusedBeforeAnyRequest) {
    put(name, "precious");
    HalvaneDownloadFileTask task(download());
    EXPECT_TRUE(run(task).is(ErrorCode::AlreadyExists));
    EXPECT_EQ(get(name), "precious");
    EXPECT_TRUE(fake.log.isEmpty());
}

TEST_F(DownloadFileTask, ATargetThatAppearsMeanwhileStaysWhatItIs) {
    fake.onStep = [this] { put(name, "precious"); };
    HalvaneDownloadFileTask task(download());
    EXPECT_TRUE(run(task).is(ErrorCode::AlreadyExists));
    EXPECT_EQ(get(name), "precious");
}

TEST_F(DownloadFileTask, ReplacesTheTargetWhenItMayAndOnlyAtTheEnd) {
    put(name, "old");
    int looks = 0;
    fake.onStep = [this, &looks] {
        if (fake.inFlight == 0)
            return; // the last piece is on its way to the disk
        EXPECT_EQ(get(name), "old");
        ++looks;
    };
    HalvaneFileDownloadParameters parameters = download();
    parameters.overwrite = true;
    HalvaneDownloadFileTask task(parameters);
    ASSERT_FALSE(run(task).hasError());
    EXPECT_GT(looks, 0);
    EXPECT_EQ(get(name), content);
}

class BadTargetNames : public DownloadFileTask, public ::testing::WithParamInterface<const char*> {};

TEST_P(BadTargetNames, AreRefusedBeforeAnyRequest) {
    HalvaneDownloadFileTask task(download(QString::fromUtf8(GetParam())));
    EXPECT_TRUE(run(task).is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(fake.log.isEmpty());
    EXPECT_EQ(entries(), QStringList());
}

INSTANTIATE_TEST_SUITE_P(Names, BadTargetNames, ::testing::Values("..", ".", "../x", "a/b", "/etc/passwd"));

TEST_F(DownloadFileTask, WithoutAReferenceThereIsNothingToDownload) {
    HalvaneFileDownloadParameters parameters = download();
    parameters.reference.reset();
    HalvaneDownloadFileTask task(parameters);
    EXPECT_TRUE(run(task).is(ErrorCode::InvalidArgument));
}

TEST_F(DownloadFileTask, AnotherDownloadOfTheSameIsBusy) {
    put(partial, "x");
    const int held = ::open(QFile::encodeName(out().filePath(partial)).constData(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(::flock(held, LOCK_EX), 0);
    HalvaneDownloadFileTask task(download());
    EXPECT_TRUE(run(task).is(ErrorCode::Busy));
    ::close(held);
    EXPECT_EQ(get(partial), "x");
}

TEST_F(DownloadFileTask, CancelledItKeepsWhatArrivedAndLeavesTheTarget) {
    fake.expectFault({"GET /content", FakeHalvane::Fault::CutBody, {}, 9});
    fake.expectFault({"GET /content", FakeHalvane::Fault::Hang});
    HalvaneDownloadFileTask task(download());
    task.exec();
    processUntil([this] { return fake.count("/content") == 2; });
    task.cancel();
    processUntil([&task] { return task.isFinished() && task.isIdle(); });
    EXPECT_TRUE(task.isCanceled());
    EXPECT_EQ(fake.inFlight, 0);
    EXPECT_EQ(entries(), QStringList{partial});
    EXPECT_EQ(get(partial), content.left(9));
}

TEST_F(DownloadFileTask, DestroyedInTheMiddleOfTheBodyItLeavesNothingRunning) {
    serve(QByteArray(3'000'000, 'x'));
    fake.pieceSize = 100'000;
    {
        HalvaneDownloadFileTask task(download({}, 3));
        bool stepped = false;
        fake.onStep = [&stepped] { stepped = true; };
        task.exec();
        processUntil([&] { return stepped && fake.count("/content") == 1; });
        fake.onStep = {};
    }
    EXPECT_EQ(fake.inFlight, 0);
    processUntil([this] {
        const int free = ::open(QFile::encodeName(out().path()).constData(), O_RDONLY | O_CLOEXEC);
        ::close(free);
        const QDir descriptors(QStringLiteral("/proc/self/fd"));
        const QStringList all = descriptors.entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
        return std::none_of(all.begin(), all.end(), [&](const QString& entry) {
            return QFile::symLinkTarget(descriptors.filePath(entry)).startsWith(out().path());
        });
    });
}

TEST_F(DownloadFileTask, ALargeContentComesWholeThroughBoundedBuffers) {
    QByteArray large(20'000'000, Qt::Uninitialized);
    for (qsizetype i = 0; i < large.size(); ++i)
        large[i] = char(i * 31 >> 3);
    serve(large);
    fake.pieceSize = 300'000;
    HalvaneDownloadFileTask task(download({}, 3));
    ASSERT_FALSE(run(task).hasError());
    EXPECT_EQ(get(name), large);
}

TEST_F(DownloadFileTask, TheCreatorMakesOneThatTheHistoryDoesNotHearOf) {
    const std::unique_ptr<Task> task = HalvaneDownloadFileTaskCreator::create(download());
    ASSERT_FALSE(run(*task).hasError());
    EXPECT_EQ(get(name), content);
    const auto recorded = HalvaneHistory().fileVersion(out().filePath(name), 12);
    ASSERT_TRUE(recorded);
    EXPECT_EQ(*recorded, std::nullopt);
}

class DownloadOfListedFile : public DownloadFileTask {
protected:
    void SetUp() override {
        DownloadFileTask::SetUp();
        state({content.size(), sha256(content), QDateTime()});
    }
    void TearDown() override {
        HalvaneAcknowledgedContents::forget(HalvaneConnection::instance().serverKey(), 12, 2);
        DownloadFileTask::TearDown();
    }
    static void state(const HalvaneAcknowledgedContents::Stated& stated) {
        HalvaneAcknowledgedContents::recordStated(HalvaneConnection::instance().serverKey(), 12, 2, stated);
    }
};

TEST_F(DownloadOfListedFile, IsOneCallAndVerifiedAsAnyOther) {
    const auto modified =
        QDateTime::fromString(QStringLiteral("2020-01-02T03:04:05.678Z"), Qt::ISODateWithMs);
    state({content.size(), sha256(content), modified});
    HalvaneDownloadFileTask task(download());
    const Error error = run(task);
    ASSERT_FALSE(error.hasError()) << qPrintable(error.traceText());
    EXPECT_EQ(get(name), content);
    EXPECT_EQ(task.sha256().toLatin1(), sha256(content));
    EXPECT_EQ(QFileInfo(task.targetPath()).lastModified(), modified);
    EXPECT_EQ(fake.log, QByteArrayList{"GET /files/12/versions/2/content"});
}

TEST_F(DownloadOfListedFile, GoesOnByRangeWithTheListedChecksumAsValidator) {
    put(partial, content.left(9));
    HalvaneDownloadFileTask task(download());
    ASSERT_FALSE(run(task).hasError());
    EXPECT_EQ(get(name), content);
    EXPECT_EQ(fake.log, QByteArrayList{"GET /files/12/versions/2/content"});
    EXPECT_EQ(NetworkRequest::header(contentRequest(0).headers, "Range"), "bytes=9-");
    EXPECT_EQ(NetworkRequest::header(contentRequest(0).headers, "If-Range"),
              "\"12-2-" + sha256(content) + '"');
}

TEST_F(DownloadOfListedFile, ThatNeedsNoContentIsAskedForAllTheSame) {
    put(partial, content);
    HalvaneDownloadFileTask whole(download());
    ASSERT_FALSE(run(whole).hasError());
    EXPECT_EQ(fake.log, QByteArrayList{"GET /files/12/versions"});
    serve("");
    HalvaneAcknowledgedContents::recordStated(HalvaneConnection::instance().serverKey(), 12, 3,
                                              {0, sha256(""), QDateTime()});
    HalvaneDownloadFileTask empty(download(QStringLiteral("empty"), 3));
    ASSERT_FALSE(run(empty).hasError());
    EXPECT_EQ(fake.log.count("GET /files/12/versions"), 2);
    EXPECT_EQ(get(QStringLiteral("empty")), "");
}

struct WrongListing {
    const char* name;
    qint64 more;
    bool isOtherContent;
};

class DownloadOfWronglyListedFile : public DownloadOfListedFile,
                                    public ::testing::WithParamInterface<WrongListing> {};

TEST_P(DownloadOfWronglyListedFile, AsksTheServerAndComesDownWhole) {
    const QByteArray other = GetParam().isOtherContent ? sha256("another") : sha256(content);
    state({content.size() + GetParam().more, other, QDateTime()});
    fake.stateChecksum = !GetParam().isOtherContent || GetParam().more != 0;
    HalvaneDownloadFileTask task(download());
    Reported reported;
    const Error error = run(task, &reported);
    ASSERT_FALSE(error.hasError()) << qPrintable(error.traceText());
    EXPECT_EQ(get(name), content);
    EXPECT_EQ(entries(), QStringList{name});
    EXPECT_EQ(fake.log.count("GET /files/12/versions"), 1);
    EXPECT_TRUE(std::is_sorted(reported.progress.begin(), reported.progress.end()));
}

INSTANTIATE_TEST_SUITE_P(Listings, DownloadOfWronglyListedFile,
                         ::testing::Values(WrongListing{"Checksum", 0, true},
                                           WrongListing{"ChecksumAndSize", 3, true},
                                           WrongListing{"TooSmall", -3, false}),
                         [](const auto& testCase) { return testCase.param.name; });

class DownloadDestroyedByProgress : public DownloadFileTask, public ::testing::WithParamInterface<int> {};

TEST_P(DownloadDestroyedByProgress, LeavesNothingRunning) {
    put(partial, content.left(4));
    fake.expectFault({"GET /content", FakeHalvane::Fault::CutBody, {}, 12});
    auto task = std::make_unique<HalvaneDownloadFileTask>(download());
    QObject receiver;
    QObject::connect(task.get(), &BaseTask::progress, &receiver, [&task](int value) {
        if (value >= GetParam())
            task.reset();
    });
    task->exec();
    processUntil([&task] { return !task; });
    EXPECT_EQ(fake.inFlight, 0);
    EXPECT_EQ(entries(), QStringList{GetParam() == 100 ? name : partial});
}

// When what was there is known, when bytes were written, at the end.
INSTANTIATE_TEST_SUITE_P(Values, DownloadDestroyedByProgress, ::testing::Values(1, 20, 100));

class DownloadBodyTest : public ::testing::Test {
protected:
    DownloadBody::Expected expected(qint64 offset) const { return {offset, 10, QByteArray(64, 'a')}; }
    static QByteArray bytes(const QList<DownloadBody::Block>& blocks) {
        QByteArray all;
        for (const DownloadBody::Block& block : blocks)
            all += *block;
        return all;
    }
};

TEST_F(DownloadBodyTest, MakesTheServerWaitUntilItsBlocksAreTaken) {
    int told = 0;
    DownloadBody body(expected(0), [&told] { ++told; }, {2, 2});
    ASSERT_EQ(body.begin(200, {}), BodySink::Verdict::Taken);
    EXPECT_EQ(body.take("abcde", 5), BodySink::Verdict::Taken);
    EXPECT_EQ(told, 1);
    EXPECT_EQ(body.take("fgh", 3), BodySink::Verdict::Pause);
    EXPECT_FALSE(body.takeResumable()) << "nothing was taken";
    EXPECT_EQ(bytes(body.takeBlocks(false)), "abcd");
    EXPECT_TRUE(body.takeResumable());
    EXPECT_FALSE(body.takeResumable()) << "once";
    EXPECT_EQ(body.take("fgh", 3), BodySink::Verdict::Taken);
    EXPECT_EQ(bytes(body.takeBlocks(false)), "efgh");
    EXPECT_EQ(body.take("i", 1), BodySink::Verdict::Taken);
    EXPECT_EQ(bytes(body.takeBlocks(false)), "");
    EXPECT_EQ(bytes(body.takeBlocks(true)), "i");
}

TEST_F(DownloadBodyTest, RefusesWhatItDidNotAskFor) {
    struct Case {
        int status;
        QList<HttpHeader> headers;
    };
    const QList<Case> cases = {{206, {}},
                               {206, {{"Content-Range", "bytes 3-9/10"}}},
                               {206, {{"Content-Range", "bytes 4-9/11"}}},
                               {206, {{"Content-Range", "bytes 4-8/10"}}},
                               {204, {}},
                               {200, {{"Halvane-Content-Sha256", QByteArray(64, 'b')}}}};
    for (const Case& wrong : cases) {
        DownloadBody body(expected(4), {});
        EXPECT_EQ(body.begin(wrong.status, wrong.headers), BodySink::Verdict::Abort);
        EXPECT_TRUE(body.error().is(ErrorDomain::Network, int(NetworkErrorCode::InvalidReply)));
    }
    DownloadBody part(expected(4), {});
    EXPECT_EQ(part.begin(206, {{"Content-Range", "bytes 4-9/10"}}), BodySink::Verdict::Taken);
    EXPECT_FALSE(part.startsOver());
    EXPECT_EQ(part.take("1234567", 7), BodySink::Verdict::Abort) << "more than announced";
    DownloadBody whole(expected(4), {});
    EXPECT_EQ(whole.begin(200, {}), BodySink::Verdict::Taken);
    EXPECT_TRUE(whole.startsOver());
    EXPECT_EQ(whole.take("1234567890", 10), BodySink::Verdict::Taken);
}

} // namespace
