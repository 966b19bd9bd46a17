#include "HalvaneHistory.h"
#include "HalvaneStateFixture.h"

#include <QFileInfo>

#include <atomic>

#include <sys/syscall.h>
#include <unistd.h>

using namespace orx;

namespace {

std::atomic<int> walFlushes = 0;

int countedFlush(long call, int descriptor) {
    const QString file = QFileInfo(QStringLiteral("/proc/self/fd/%1").arg(descriptor)).symLinkTarget();
    if (file.endsWith(QStringLiteral("/halvane.sqlite-wal")))
        ++walFlushes;
    return int(::syscall(call, descriptor));
}

//! Whether \a change was flushed to the disk by the time it returned.
template <typename Change>
bool isFlushed(Change change) {
    walFlushes = 0;
    EXPECT_FALSE(change().hasError());
    return walFlushes > 0;
}

class StateDurabilityTest : public orx::testing::HalvaneStateFixture {};

} // namespace

// The program's own definitions take the place of the C library's for SQLite too.
extern "C" int fsync(int descriptor) {
    return countedFlush(SYS_fsync, descriptor);
}

extern "C" int fdatasync(int descriptor) {
    return countedFlush(SYS_fdatasync, descriptor);
}

TEST_F(StateDurabilityTest, EveryChangeIsOnTheDiskWhenItReturns) {
    const HalvaneUploadRecord wanted = recordFor(makeFile(QStringLiteral("a")));
    qint64 row = -1;
    EXPECT_TRUE(isFlushed([&] {
        const auto record = HalvaneUploadJournal::acquire(wanted);
        row = record ? record->rowId : -1;
        return record.error();
    }));
    EXPECT_TRUE(isFlushed([&] { return HalvaneUploadJournal::setUploadId(row, 5); }));
    EXPECT_TRUE(isFlushed([&] { return HalvaneHistory().setFileVersion(wanted.localPath, 12, 3); }));
    EXPECT_TRUE(isFlushed([&] { return HalvaneUploadJournal::release(row); }));
    EXPECT_TRUE(isFlushed([&] { return HalvaneUploadJournal::remove(row); }));
}

TEST_F(StateDurabilityTest, ReadingFlushesNothing) {
    const HalvaneUploadRecord wanted = recordFor(makeFile(QStringLiteral("a")));
    ASSERT_FALSE(HalvaneHistory().setFileVersion(wanted.localPath, 12, 3).hasError());
    EXPECT_FALSE(isFlushed([&] { return HalvaneHistory().fileVersion(wanted.localPath, 12).error(); }));
    EXPECT_FALSE(isFlushed([&] { return HalvaneUploadJournal::unsettled(wanted).error(); }));
}
