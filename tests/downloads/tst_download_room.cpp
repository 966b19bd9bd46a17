// Room is asked for beforehand, less what an interrupted run left, under whatever name that is and also when
// the cache could not be used after all.
#include "ItemDownloads.h"

#include <DownloadNames.h>
#include <HalvaneAcknowledgedContents.h>
#include <HalvaneError.h>
#include <ResourceManager.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr qint64 plenty = qint64(1) << 40;
//! What every file system has.
std::atomic<qint64> availableBytes = plenty;

int tellRoom(struct statvfs* room, qint64 bytes) {
    *room = {};
    room->f_frsize = room->f_bsize = 1;
    room->f_blocks = fsblkcnt_t(plenty);
    room->f_bavail = room->f_bfree = fsblkcnt_t(bytes);
    return 0;
}

} // namespace

// The program's own definitions take the place of the C library's for the libraries too.
// Who unpacks asks for the staging directory, and by blocks.
extern "C" int statvfs(const char* path, struct statvfs* room) noexcept {
    return tellRoom(room, std::strstr(path, "halvane-part") ? plenty : availableBytes.load());
}

extern "C" int fstatvfs(int, struct statvfs* room) noexcept {
    return tellRoom(room, availableBytes);
}

namespace orx::testing {
namespace {

using halvane::host::ClashAnswerer;
using halvane::host::DownloadedFile;
using halvane::host::IfExists;
using halvane::host::ItemDownloadTask;

class DownloadRoom : public ItemDownloads {
protected:
    static constexpr qsizetype size = 2000;

    ~DownloadRoom() override { availableBytes = plenty; }
    static QByteArray someContent() {
        QByteArray bytes;
        while (bytes.size() < size)
            bytes += QByteArray::number(bytes.size()) + ' ';
        return bytes.left(size);
    }
    Error get(const ItemDownloadTask::Wanted& file, IfExists policy = IfExists::Fail) {
        ClashAnswerer answerer(policy);
        const auto task = ItemDownloadTask::create(file, answerer);
        Error error = run(*task);
        result = task->result();
        return error;
    }
    //! As an interrupted run leaves it: the first bytes.
    void leave(const QString& relative, const QByteArray& content, qsizetype bytes) const {
        put(relative, content.left(bytes));
    }
    static bool isNoRoom(const Error& error) {
        return error.is(ErrorCode::StorageFull) || error.is(ErrorDomain::OperatingSystem, ENOSPC);
    }

    DownloadedFile result;
};
INSTANTIATE_TEST_SUITE_P(Real, DownloadRoom, ::testing::Values(Backend::Real), backendName);

TEST_P(DownloadRoom, AFileThatGetsAFreeNameGoesOnWithTheRestOfThatName) {
    const auto file = wanted(text("run"), someContent(), false);
    put(text("run"), "another");
    leave(DownloadNames::partialName(text("run (2)"), file.item.id, 1), someContent(), size - 1000);
    availableBytes = 999;
    EXPECT_TRUE(isNoRoom(get(file, IfExists::Rename)));
    EXPECT_EQ(contentCalls(), 0);
    availableBytes = 1000;
    const Error error = get(file, IfExists::Rename);
    EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    EXPECT_EQ(tree(),
              (QStringList{text("run (2)=") + QString::fromLatin1(someContent()), text("run=another")}));
}

TEST_P(DownloadRoom, ACopyOutOfTheCacheUnderAFreeNameNeedsRoomForAllOfIt) {
    const auto file = wanted(text("run"), someContent(), true);
    put(text("run"), "another");
    availableBytes = size - 1;
    EXPECT_TRUE(isNoRoom(get(file, IfExists::Rename)));
    EXPECT_TRUE(isNoRoom(get(file, IfExists::Overwrite)));
    EXPECT_EQ(contentCalls(), 0);
    availableBytes = size;
    EXPECT_FALSE(get(file, IfExists::Rename).hasError());
}

TEST_P(DownloadRoom, WhatAnEarlierRunLeftCountsAlsoWhenTheCacheCannotBeUsed) {
    const auto file = wanted(text("run"), someContent(), true);
    leave(DownloadNames::partialName(text("run"), file.item.id, 1), someContent(), size - 1000);
    put(text("no directory"), "a file");
    ResourceCache unusable(at(text("no directory/cache")));
    ResourceManager::setCache(&unusable);
    availableBytes = 1000;
    const Error error = get(file);
    ResourceManager::setCache(&cache());
    EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    EXPECT_FALSE(result.warnings.isEmpty()) << "that the cache was not used";
    EXPECT_TRUE(tree().contains(text("run=") + QString::fromLatin1(someContent())));
}

// The packed file and what it holds are there together.
TEST_P(DownloadRoom, AnAcquisitionNeedsRoomForWhatIsMissingOfItAndForWhatItHolds) {
    constexpr qsizetype held = 2000;
    constexpr qsizetype missing = 1000;
    const QByteArray packed = packedRun(held);
    ASSERT_GT(packed.size(), held);
    const auto file = wanted(text("run.d.vonk"), packed, false);
    const QString staging = DownloadNames::partialName(text("run.d.vonk-unpacked"), file.item.id, 1);
    const QString arrived = DownloadNames::packedName(text("run.d.vonk"), file.item.id, 1);
    const QString unpacked = DownloadNames::unpackedName(text("run.d.vonk"), file.item.id, 1);
    availableBytes = packed.size() + held - 1;
    EXPECT_TRUE(isNoRoom(get(file)));
    leave(staging + u'/' + DownloadNames::partialName(arrived, file.item.id, 1), packed,
          packed.size() - missing);
    availableBytes = missing + held - 1;
    EXPECT_TRUE(isNoRoom(get(file)));
    // What was unpacked of it before goes first.
    put(staging + u'/' + unpacked + text("/content/x"), QByteArray(500, 'x'));
    availableBytes = missing + held - 500 - 1;
    forgetCalls();
    EXPECT_TRUE(isNoRoom(get(file)));
    EXPECT_EQ(contentCalls(), 1) << "only what it holds was asked for";
    availableBytes = missing + held - 500;
    const Error error = get(file);
    EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    ASSERT_EQ(tree().size(), 2);
    EXPECT_EQ(tree().first(), text("run.d/"));
}

} // namespace
} // namespace orx::testing
