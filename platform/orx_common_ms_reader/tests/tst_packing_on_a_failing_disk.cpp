// Each call that writes fails once, one after the other: nothing half-made has the name that was asked for,
// nothing is left beside it, the error says what and where, and the same work succeeds afterwards.
#include "FailingDisk.h"
#include "PackingFixture.h"
#include "SmallWriter.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <functional>
#include <optional>
#include <set>

using namespace orx;
using namespace orx::vonk;
using orx::testing::FailingDisk;

namespace {

struct Way {
    int error;
    FailingDisk::Lasts lasts;
    ErrorCode code;
    const char* text;
};

class PackingOnAFailingDisk : public PackingFixture, public ::testing::WithParamInterface<Way> {
protected:
    //! Does \a work with the first call failing, with the second, ... until none fails any more, and returns
    //! the names of those that did. After each failure \a expectNothing looks at what there is.
    std::set<std::string> eachFails(const std::function<Error()>& work) const {
        std::set<std::string> calls;
        for (int failing = 0;; ++failing) {
            const FailingDisk disk(out().toStdString(), failing, GetParam().error, GetParam().lasts);
            const Error error = work();
            const std::string call = disk.failed();
            if (call.empty()) {
                EXPECT_FALSE(error.hasError()) << qPrintable(error.traceText());
                return calls;
            }
            calls.insert(call);
            const std::string where = "call " + std::to_string(failing) + ", " + call;
            EXPECT_TRUE(error.is(GetParam().code)) << where << ' ' << qPrintable(error.traceText());
            EXPECT_TRUE(error.errorMessage().contains(QString::fromLatin1(GetParam().text))) << where;
            EXPECT_TRUE(error.errorMessage().contains(target()))
                << where << ": " << qPrintable(error.errorMessage());
            EXPECT_EQ(names(out()), QStringList()) << where;
        }
    }
    QString target() const { return out(QStringLiteral("target")); }
};

TEST_P(PackingOnAFailingDisk, PackingLeavesNothing) {
    const QString source = makeAcquisition();
    const auto calls = eachFails([&] { return VonkPacker::pack(inputOf(source), target()).error(); });
    EXPECT_EQ(calls, (std::set<std::string>{"open", "write", "fsync", "close", "renameat2"}));
    EXPECT_FALSE(checked(target(), Vonk::Check::Full).hasError());
    EXPECT_EQ(names(out()), QStringList{QStringLiteral("target")});
}

TEST_P(PackingOnAFailingDisk, UnpackingLeavesNothing) {
    pack(makeAcquisition(), in(QStringLiteral("run1.vonk")));
    Vonk vonk(in(QStringLiteral("run1.vonk")));
    ASSERT_FALSE(vonk.open().hasError());
    const auto calls = eachFails([&] { return vonk.unpack(target()); });
    EXPECT_EQ(calls, (std::set<std::string>{"mkdir", "mkdirat", "openat", "write", "futimens", "fsync",
                                            "close", "renameat2"}));
    EXPECT_EQ(tree(target() + QStringLiteral("/content/run1.d")), tree(in(QStringLiteral("run1.d"))));
    EXPECT_EQ(names(out()), QStringList{QStringLiteral("target")});
}

TEST_P(PackingOnAFailingDisk, UpgradingLeavesNothing) {
    SmallWriter writer = smallSample(1);
    const QByteArray old = writer.bytes();
    write(in(QStringLiteral("old.vonk")), old);
    Vonk vonk(in(QStringLiteral("old.vonk")));
    ASSERT_FALSE(vonk.open().hasError());
    const auto calls = eachFails([&] { return vonk.upgrade(target()); });
    EXPECT_EQ(calls, (std::set<std::string>{"open", "write", "fsync", "close", "renameat2"}));
    EXPECT_FALSE(checked(target(), Vonk::Check::Full).hasError());
    EXPECT_EQ(read(in(QStringLiteral("old.vonk"))), old);
    EXPECT_EQ(names(out()), QStringList{QStringLiteral("target")});
}

class DiskThatFailsForGood : public PackingFixture {
protected:
    //! As in eachFails(), but renaming fails, too, and once the name was given it cannot be taken back.
    void leavesAllOrNothing(const std::function<Error()>& work,
                            const std::function<void()>& expectAll) const {
        int complete = 0;
        for (int failing = 0;; ++failing) {
            std::optional<FailingDisk> disk(std::in_place, out().toStdString(), failing, EIO,
                                            FailingDisk::Lasts::ForGood);
            const Error error = work();
            if (disk->failed().empty())
                break;
            disk.reset();
            EXPECT_TRUE(error.is(ErrorCode::FileNotWritable)) << failing;
            const bool isThere = !names(out()).isEmpty();
            EXPECT_EQ(
                error.errorMessage().contains(QStringLiteral("\"%1\" is there and complete").arg(target())),
                isThere)
                << failing << ": " << qPrintable(error.errorMessage());
            if (!isThere)
                continue;
            ++complete;
            EXPECT_EQ(names(out()), QStringList{QStringLiteral("target")}) << failing;
            expectAll();
            ASSERT_TRUE(QDir(out()).removeRecursively() && QDir().mkpath(out()));
        }
        EXPECT_EQ(complete, 1) << "the flush of the directory, which comes last";
    }
    QString target() const { return out(QStringLiteral("target")); }
};

TEST_F(DiskThatFailsForGood, APackedFileThatCannotBeTakenBackIsToldOf) {
    const QString source = makeAcquisition();
    leavesAllOrNothing([&] { return VonkPacker::pack(inputOf(source), target()).error(); },
                       [&] { EXPECT_FALSE(checked(target(), Vonk::Check::Full).hasError()); });
}

TEST_F(DiskThatFailsForGood, AnUnpackedDirectoryThatCannotBeTakenBackIsToldOf) {
    pack(makeAcquisition(), in(QStringLiteral("run1.vonk")));
    Vonk vonk(in(QStringLiteral("run1.vonk")));
    ASSERT_FALSE(vonk.open().hasError());
    leavesAllOrNothing([&] { return vonk.unpack(target()); },
                       [&] {
                           EXPECT_EQ(tree(target() + QStringLiteral("/content/run1.d")),
                                     tree(in(QStringLiteral("run1.d"))));
                       });
}

// A drop box: one may put something there and not look at what is there.
class DirectoryThatCannotBeRead : public PackingFixture {};

TEST_F(DirectoryThatCannotBeRead, TakesWhatIsPackedAndUnpacked) {
    const QString source = makeAcquisition();
    const FailingDisk disk(out().toStdString(), 0, EACCES, FailingDisk::Lasts::FromThenOn,
                           FailingDisk::Calls::ThatOpenADirectory);
    EXPECT_FALSE(VonkPacker::pack(inputOf(source), out(QStringLiteral("run1.vonk"))).hasError());
    EXPECT_FALSE(disk.failed().empty());
    Vonk vonk(out(QStringLiteral("run1.vonk")));
    ASSERT_FALSE(vonk.open().hasError());
    EXPECT_FALSE(vonk.unpack(out(QStringLiteral("back"))).hasError());
    EXPECT_EQ(names(out()), (QStringList{QStringLiteral("back"), QStringLiteral("run1.vonk")}));
    EXPECT_EQ(tree(out(QStringLiteral("back/content/run1.d"))), tree(source));
}

constexpr const char* kNoRoom = "There is no room for \"";
constexpr const char* kBroken = "Could not write \"";

INSTANTIATE_TEST_SUITE_P(
    Ways, PackingOnAFailingDisk,
    ::testing::Values(Way{ENOSPC, FailingDisk::Lasts::FromThenOn, ErrorCode::StorageFull, kNoRoom},
                      Way{EDQUOT, FailingDisk::Lasts::Once, ErrorCode::StorageFull, kNoRoom},
                      Way{EIO, FailingDisk::Lasts::Once, ErrorCode::FileNotWritable, kBroken}),
    [](const ::testing::TestParamInfo<Way>& way) {
        return way.param.error == ENOSPC   ? "FullDisk"
               : way.param.error == EDQUOT ? "FullQuota"
                                           : "BrokenDisk";
    });

} // namespace
