#include <MountPoints.h>

#include <gtest/gtest.h>

using namespace orx;

namespace {

const QByteArray mountinfo =
    "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
    "23 22 0:21 / /proc rw,nosuid shared:12 - proc proc rw\n"
    "31 22 8:17 / /data rw,relatime - xfs /dev/sdb1 rw\n"
    "40 31 8:17 /originals /data/run.d/raw rw,relatime - xfs /dev/sdb1 rw\n"
    "41 31 0:50 / /data/a\\040b\\134c rw,relatime shared:3 master:4 - tmpfs tmpfs rw\n"
    "42 31 0:51 / /data/\\3040 rw - tmpfs tmpfs rw\n"
    "no line\n";

TEST(MountPoints, AreToldOfADirectoryAndWhatIsBelowIt) {
    const MountPoints points(mountinfo);
    const auto expect = [&points](const char* path, const QByteArray& within) {
        EXPECT_EQ(points.within(path), within) << path;
    };
    expect("/data", "/data");
    expect("/data/run.d", "/data/run.d/raw");
    expect("/data/run.d/raw", "/data/run.d/raw");
    expect("/data/run.d/raw/1", "");
    // Others that only begin like it.
    expect("/dat", "");
    expect("/data/run", "");
    expect("/data/run.d/ra", "");
    expect("/home", "");
}

TEST(MountPoints, NamesMayHoldAnything) {
    const MountPoints points(mountinfo);
    EXPECT_EQ(points.within("/data/a b\\c"), "/data/a b\\c");
    EXPECT_EQ(points.within("/data/a\\040b\\134c"), "");
    EXPECT_EQ(points.within("/data/\xc4"
                            "0"),
              "/data/\xc4"
              "0");
}

TEST(MountPoints, NothingIsMountedWhereNothingIsTold) {
    EXPECT_EQ(MountPoints("").within("/data"), "");
    EXPECT_EQ(MountPoints("1 2 3 4\n\n").within("/data"), "");
}

} // namespace
