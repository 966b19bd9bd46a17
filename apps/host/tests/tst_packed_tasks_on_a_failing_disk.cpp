// Unpacking into a directory, upgrading in place and writing a picture on a disk on which each call that
// writes fails once, one after the other: what was there stays, nothing half-made is left, and the same work
// succeeds afterwards.
#include "FailingDisk.h"
#include "PackedFileTasks.h"
#include "PackedRunFixture.h"
#include "SmallWriter.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

using namespace halvane::host;
using orx::Error;
using orx::ErrorCode;
using orx::Task;
using orx::testing::FailingDisk;
using orx::vonk::Vonk;

namespace {

struct Way {
    int error;
    FailingDisk::Lasts lasts;
    ErrorCode code;
};

class PackedTasksOnAFailingDisk : public PackedRunFixture, public ::testing::WithParamInterface<Way> {
protected:
    QStringList names() const {
        return QDir(path(QStringLiteral("out")))
            .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
    }
    static Error run(Task& task) {
        task.setExecutionMode(Task::ExecutionMode::Direct);
        task.exec();
        return task.waitForFinished();
    }
    //! Does \a work with each of its calls failing, until none fails any more; how many failed.
    int eachFails(const QString& named, const std::function<Error()>& work,
                  const std::function<void(const Error&)>& expectAfterFailure) const {
        for (int failing = 0;; ++failing) {
            if (m_prepare)
                m_prepare();
            const FailingDisk disk(path(QStringLiteral("out")).toStdString(), failing, GetParam().error,
                                   GetParam().lasts);
            const Error error = work();
            if (disk.failed().empty()) {
                EXPECT_FALSE(error.hasError()) << qPrintable(error.traceText());
                return failing;
            }
            SCOPED_TRACE("call " + std::to_string(failing) + ", " + disk.failed());
            EXPECT_TRUE(error.hasError());
            EXPECT_TRUE(error.errorMessage().contains(path(named))) << qPrintable(error.traceText());
            EXPECT_FALSE(error.errorMessage().contains(QStringLiteral(".part")))
                << qPrintable(error.errorMessage());
            expectAfterFailure(error);
        }
    }
    static void expectKind(const Error& error) {
        EXPECT_TRUE(error.is(GetParam().code)) << qPrintable(error.traceText());
    }

    //! Done before each time, while nothing fails.
    std::function<void()> m_prepare;
};

TEST_P(PackedTasksOnAFailingDisk, UnpackingIntoANewDirectoryLeavesNothing) {
    const int failures = eachFails(
        QStringLiteral("out/back"),
        [this] {
            UnpackIntoTask task(packed(), path(QStringLiteral("out/back")));
            const Error error = run(task);
            EXPECT_EQ(task.paths().size(), error.hasError() ? 0 : 2);
            return error;
        },
        [this](const Error& error) {
            expectKind(error);
            EXPECT_EQ(names(), QStringList());
        });
    EXPECT_GT(failures, 10);
    EXPECT_EQ(names(), QStringList{QStringLiteral("back")});
    EXPECT_EQ(read(QStringLiteral("out/back/run.main")), read(QStringLiteral("in/run.main")));
    EXPECT_EQ(read(QStringLiteral("out/back/run.extra")), read(QStringLiteral("in/run.extra")));
}

TEST_P(PackedTasksOnAFailingDisk, UnpackingIntoADirectoryLeavesWhatWasInIt) {
    write(QStringLiteral("out/stays"), "as it is");
    const int failures = eachFails(
        QStringLiteral("out"),
        [this] {
            UnpackIntoTask task(packed(), path(QStringLiteral("out")));
            return run(task);
        },
        [this](const Error& error) {
            expectKind(error);
            EXPECT_EQ(names(), QStringList{QStringLiteral("stays")});
        });
    EXPECT_GT(failures, 10);
    EXPECT_EQ(names(), (QStringList{QStringLiteral("run.extra"), QStringLiteral("run.main"),
                                    QStringLiteral("stays")}));
}

TEST_P(PackedTasksOnAFailingDisk, UpgradingInPlaceLeavesTheOldFileOrTheNewOne) {
    orx::vonk::SmallWriter writer = orx::vonk::smallSample(1);
    const QByteArray old = writer.bytes();
    m_prepare = [&] { write(QStringLiteral("out/old.vonk"), old); };
    int replaced = 0;
    const int failures = eachFails(
        QStringLiteral("out/old.vonk"),
        [&] {
            UpgradeInPlaceTask task(path(QStringLiteral("out/old.vonk")));
            return run(task);
        },
        [&](const Error& error) {
            EXPECT_EQ(names(), QStringList{QStringLiteral("old.vonk")});
            if (read(QStringLiteral("out/old.vonk")) == old) {
                expectKind(error);
                return;
            }
            ++replaced;
            EXPECT_TRUE(error.errorMessage().contains(QStringLiteral("is upgraded and complete")))
                << qPrintable(error.errorMessage());
            Vonk vonk(path(QStringLiteral("out/old.vonk")));
            EXPECT_FALSE(vonk.open().hasError());
            EXPECT_EQ(vonk.metadata().formatVersion, orx::vonk::vonkVersion());
            EXPECT_FALSE(vonk.validate(Vonk::Check::Full).hasError());
        });
    EXPECT_GT(failures, 5);
    EXPECT_EQ(replaced, 1);
}

TEST_P(PackedTasksOnAFailingDisk, APictureIsWrittenWholeOrNotAtAll) {
    const int failures = eachFails(
        QStringLiteral("out"),
        [this] { return writeNewFile(path(QStringLiteral("out/run.svg")), "<svg></svg>"); },
        [this](const Error&) { EXPECT_EQ(names(), QStringList()); });
    EXPECT_GT(failures, 3);
    EXPECT_EQ(read(QStringLiteral("out/run.svg")), "<svg></svg>");
}

INSTANTIATE_TEST_SUITE_P(Ways, PackedTasksOnAFailingDisk,
                         ::testing::Values(Way{ENOSPC, FailingDisk::Lasts::FromThenOn,
                                               ErrorCode::StorageFull},
                                           Way{EIO, FailingDisk::Lasts::Once, ErrorCode::FileNotWritable}),
                         [](const ::testing::TestParamInfo<Way>& way) {
                             return way.param.error == ENOSPC ? "FullDisk" : "BrokenDisk";
                         });

} // namespace
