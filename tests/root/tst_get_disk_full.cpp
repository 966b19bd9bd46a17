// A download that was interrupted goes on where there is room for the rest only.
#include "Client.h"
#include "MountedVolume.h"

#include <DownloadNames.h>
#include <FaultProxy.h>
#include <Vonk.h>
#include <VonkPacker.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QStorageInfo>

namespace orx::testing {
namespace {

QString text(const char* utf8) {
    return QString::fromUtf8(utf8);
}

class GetWithLittleRoom : public ::testing::Test {
protected:
    static constexpr qint64 size = 10'000'000;

    void SetUp() override {
        disk = MountedVolume::tmpfs(16);
        ASSERT_TRUE(disk);
        ASSERT_TRUE(server.start());
        proxy = std::make_unique<FaultProxy>("127.0.0.1", server.port());
        ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy->url()))));
    }
    void fillUpTo(qint64 bytes) const {
        QFile filler(disk->path() + text("/filler"));
        ASSERT_TRUE(filler.open(QIODevice::Append | QIODevice::Unbuffered));
        while (QStorageInfo(disk->path()).bytesAvailable() > bytes &&
               filler.write(QByteArray(4096, 'x')) == 4096) {
        }
    }
    QJsonObject put(const QString& path) const {
        return client
            .mustRun({text("--json"), text("put"), text("--no-cache"), path, text("--to"), text("/")})
            .object();
    }
    QStringList get(const QString& name) const {
        return {text("--json"),     text("get"),  text("/") + name,
                text("--no-cache"), text("--to"), disk->path()};
    }

    RealServer server;
    std::unique_ptr<FaultProxy> proxy;
    Client client;
    std::unique_ptr<MountedVolume> disk;
};

TEST_F(GetWithLittleRoom, AFileGoesOnWithWhatIsMissing) {
    const QString source = client.makeLargeFile(text("run1.raw"), size);
    put(source);
    const auto held = proxy->holdReply({"GET", ".*/content", 1});
    proxy->cutReplyBody({"GET", ".*/content"}, size * 9 / 10);
    const auto killed = client.start(get(text("run1.raw")));
    held->waitUntilAnswered();
    killed->kill();
    ASSERT_TRUE(killed->waitForFinished());
    held->drop();
    fillUpTo(3'000'000);
    server.clearRequests();
    const Outcome outcome = client.run(get(text("run1.raw")));
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    EXPECT_EQ(Client::contentOf(disk->path() + text("/run1.raw")), Client::contentOf(source));
    EXPECT_EQ(server.countRequests(text("GET"), text("/content")), 1);
}

TEST_F(GetWithLittleRoom, AnAcquisitionThatIsUnpackedAlreadyNeedsNone) {
    ASSERT_TRUE(QDir().mkpath(client.path(text("run.d"))));
    const QString fid = client.makeLargeFile(text("run.d/fid"), size);
    vonk::PackInput input;
    input.path = client.path(text("run.d"));
    const QString packed = client.path(text("run.d.vonk"));
    ASSERT_TRUE(vonk::VonkPacker::pack(input, packed));
    const QJsonObject uploaded = put(packed);
    const QString staging =
        disk->path() + u'/' +
        DownloadNames::partialName(text("run.d.vonk-unpacked"), uploaded[text("id")].toInt(), 1);
    ASSERT_TRUE(QDir().mkpath(staging));
    vonk::Vonk file(packed);
    ASSERT_FALSE(file.open().hasError());
    ASSERT_FALSE(file.unpack(staging + text("/run.d.vonk")).hasError());
    ASSERT_LT(QStorageInfo(disk->path()).bytesAvailable(), size);
    const Outcome outcome = client.run(get(text("run.d.vonk")));
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    EXPECT_EQ(Client::contentOf(disk->path() + text("/run.d/fid")), Client::contentOf(fid));
    EXPECT_EQ(QDir(disk->path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
              QStringList{text("run.d")});
}

} // namespace
} // namespace orx::testing
