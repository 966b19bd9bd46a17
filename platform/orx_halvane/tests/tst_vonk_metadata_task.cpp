#include "HalvaneError.h"
#include "HalvaneGetVonkMetadataTask.h"
#include "HalvaneTaskFixture.h"

#include <NetworkError.h>
#include <RealServer.h>
#include <VonkPacker.h>

#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>

using namespace orx;
using namespace orx::testing;

namespace {

class VonkMetadataTask : public ::testing::Test {
protected:
    void SetUp() override { server.connectClient(); }

    //! The packed file of one file that does not compress, and what it says about itself.
    std::pair<QByteArray, vonk::VonkMetadata> packed(qsizetype size) const {
        QFile raw(dir.filePath(QStringLiteral("run1.raw")));
        EXPECT_TRUE(raw.open(QIODevice::WriteOnly));
        QByteArray content(size, Qt::Uninitialized);
        QRandomGenerator generator(1);
        generator.generate(content.begin(), content.end());
        raw.write(content);
        raw.close();
        const QString target = dir.filePath(QStringLiteral("%1.vonk").arg(size));
        vonk::PackInput input;
        input.path = raw.fileName();
        const auto metadata = vonk::VonkPacker::pack(input, target);
        EXPECT_TRUE(metadata);
        QFile file(target);
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        return {file.readAll(), *metadata};
    }
    int put(const QByteArray& content) {
        return server.service().addFile(QStringLiteral("run1.raw.vonk"), content, 1);
    }
    static std::unique_ptr<HalvaneGetVonkMetadataTask> read(int file) {
        return std::make_unique<HalvaneGetVonkMetadataTask>(
            HalvaneGetVonkMetadataTask::Wanted{file, 1, QStringLiteral("run1.raw.vonk")});
    }
    static Error run(BaseTask& task) {
        task.exec();
        return task.waitForFinished();
    }
    QList<QByteArray> ranges() const {
        QList<QByteArray> asked;
        for (const ScriptedRequest& request : server.requests())
            asked.append(request.header("Range"));
        return asked;
    }

    ClientEnvironment client{QUrl(QStringLiteral("http://scripted.invalid"))};
    ScriptedHalvaneServer server;
    QTemporaryDir dir;
};

} // namespace

TEST_F(VonkMetadataTask, OfASmallFileOneCallTellsAll) {
    const auto [bytes, metadata] = packed(1'000);
    const auto task = read(put(bytes));
    ASSERT_TRUE(succeeded(run(*task)));
    EXPECT_EQ(task->metadata(), metadata);
    EXPECT_EQ(ranges(), QList<QByteArray>{"bytes=-262144"});
}

TEST_F(VonkMetadataTask, OfALargeFileItsEndsAreReadAndNothingElse) {
    const auto [bytes, metadata] = packed(2'000'000);
    const auto task = read(put(bytes));
    ASSERT_TRUE(succeeded(run(*task)));
    EXPECT_EQ(task->metadata(), metadata);
    EXPECT_EQ(ranges(), (QList<QByteArray>{"bytes=-262144", "bytes=0-127"}));
    EXPECT_FALSE(server.requests().last().header("If-Range").isEmpty());
}

TEST_F(VonkMetadataTask, WhatIsNoPackedAcquisitionIsAnErrorThatNamesIt) {
    for (const QByteArray& content : {QByteArray("plain text"), QByteArray(1'000'000, 'x')}) {
        const auto task = read(put(content));
        const Error error = run(*task);
        EXPECT_TRUE(error.is(ErrorCode::ParseError)) << qPrintable(error.errorMessage());
        EXPECT_TRUE(error.errorMessage().contains(QStringLiteral("\"run1.raw.vonk\" on the server")));
    }
    auto [bytes, metadata] = packed(2'000'000);
    bytes.chop(1);
    EXPECT_TRUE(run(*read(put(bytes))).is(ErrorCode::ChecksumMismatch));
}

TEST_F(VonkMetadataTask, ErrorsOfTheCallsAreTold) {
    EXPECT_TRUE(run(*read(9999)).is(ErrorDomain::Server, int(HalvaneServerErrorCode::NotFound)));
    const auto [bytes, metadata] = packed(2'000'000);
    server.script(QStringLiteral("GET *content"), ScriptedFault::html(200), 1);
    EXPECT_TRUE(run(*read(put(bytes))).hasError());
}

// The two parts are of one content, or of none.
TEST_F(VonkMetadataTask, APartOfAnotherContentIsRefused) {
    const auto [bytes, metadata] = packed(2'000'000);
    const int file = put(bytes);
    int calls = 0;
    server.onRequest = [&](const ScriptedRequest&) {
        if (++calls == 2) {
            ScriptedFault other = ScriptedFault::raw(206, bytes.left(128));
            other.reply.headers = {{"Content-Range", "bytes 0-127/2000000"}, {"ETag", "\"another\""}};
            server.script(QStringLiteral("GET *content"), other, 1);
        }
    };
    EXPECT_TRUE(run(*read(file)).is(ErrorDomain::Network, int(NetworkErrorCode::InvalidReply)));
}
