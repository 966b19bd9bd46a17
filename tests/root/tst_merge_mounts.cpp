// A directory that is a mount point, or in which anything is mounted, is not replaced by a merged one: what
// is mounted would go with the old one, and be emptied through it. Also where the kernel does not tell of an
// entry whether it is one, so that it is a program of its own.
#include "MergeFiles.h"
#include "MountedVolume.h"

#include <DirectoryMerge.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

bool tellsNoMounts = false;

} // namespace

// The program's own definition takes the place of the C library's for the libraries too.
extern "C" int statx(int directory, const char* path, int flags, unsigned mask, struct statx* info) noexcept {
    const long result = ::syscall(SYS_statx, directory, path, flags, mask, info);
    if (result == 0 && tellsNoMounts)
        info->stx_attributes = info->stx_attributes_mask = 0;
    return int(result);
}

namespace orx::testing {
namespace {

class MergeMounts : public ::testing::TestWithParam<bool>, protected MergeFiles {
protected:
    void SetUp() override {
        tellsNoMounts = !GetParam();
        put("new/acqu", "new");
        put("place/run/acqu", "old");
        put("place/run/data/fid", "points");
        put("elsewhere/original", "the original");
    }
    void TearDown() override { tellsNoMounts = false; }
    //! The merge is refused because of \a mounted, and nothing is made beside the target for it.
    void expectRefused(const QString& mounted) const {
        const int watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        ASSERT_GE(watch, 0);
        ASSERT_GE(::inotify_add_watch(watch, QFile::encodeName(at("place")).constData(), IN_CREATE), 0);
        const Error error = DirectoryMerge::run(at("new"), at("place/run"), {});
        EXPECT_TRUE(error.is(ErrorCode::FileNotWritable)) << qPrintable(error.errorMessage());
        EXPECT_TRUE(error.errorMessage().contains(mounted)) << qPrintable(error.errorMessage());
        char events[4096];
        EXPECT_EQ(::read(watch, events, sizeof events), -1) << "something was made";
        ::close(watch);
        EXPECT_EQ(get("elsewhere/original"), "the original");
    }

private:
};

INSTANTIATE_TEST_SUITE_P(KernelTells, MergeMounts, ::testing::Bool());

TEST_P(MergeMounts, ATargetThatIsAMountPointIsRefused) {
    const auto volume = MountedVolume::bind(at("elsewhere"), at("place/run"));
    ASSERT_TRUE(volume);
    expectRefused(at("place/run"));
}

TEST_P(MergeMounts, ADirectoryMountedInItIsRefused) {
    const auto volume = MountedVolume::bind(at("elsewhere"), at("place/run/data"));
    ASSERT_TRUE(volume);
    expectRefused(at("place/run/data"));
    EXPECT_EQ(get("place/run/acqu"), "old");
}

TEST_P(MergeMounts, AFileMountedInItIsRefused) {
    const auto volume = MountedVolume::bind(at("elsewhere/original"), at("place/run/data/fid"));
    ASSERT_TRUE(volume);
    expectRefused(at("place/run/data/fid"));
    EXPECT_EQ(get("place/run/acqu"), "old");
}

TEST_P(MergeMounts, ItMayLieBehindALinkToAnotherVolume) {
    const auto volume = MountedVolume::tmpfs(8);
    ASSERT_TRUE(volume);
    ASSERT_TRUE(QFile::link(volume->path(), at("link")));
    put("link/run/acqu", "old");
    const Error error = DirectoryMerge::run(at("new"), at("link/run"), {});
    EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    EXPECT_EQ(get("link/run/acqu"), "new");
}

TEST_P(MergeMounts, OutsideOfItAnythingMayBeMounted) {
    const auto volume = MountedVolume::bind(at("place"), at("place"));
    ASSERT_TRUE(volume);
    const Error error = DirectoryMerge::run(at("new"), at("place/run"), {});
    EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    EXPECT_EQ(get("place/run/acqu"), "new");
    EXPECT_EQ(get("place/run/data/fid"), "points");
}

} // namespace
} // namespace orx::testing
