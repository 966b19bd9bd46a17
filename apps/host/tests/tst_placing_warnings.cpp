// What somebody writes into a directory in the moment in which it is replaced is kept, and who placed its
// successor is told where, whatever becomes of the rest. A program of its own, since it does that in the
// middle of its own system calls.
#include <ContentPlacing.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

//! What happens just before two names are exchanged.
std::function<void()> onExchange;

} // namespace

// The program's own definition takes the place of the C library's for the libraries too.
extern "C" int renameat2(int from, const char* oldName, int to, const char* newName,
                         unsigned int flags) noexcept {
    if (flags == RENAME_EXCHANGE && onExchange)
        onExchange();
    return int(::syscall(SYS_renameat2, from, oldName, to, newName, flags));
}

namespace halvane::host {
namespace {

using orx::Error;
using orx::ErrorCode;

//! Whether the content is copied or moved.
class PlacingWarnings : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        write("content/run.d/fid", "new");
        write("content/run.txt", "text");
        write("out/run.d/fid", "old");
        placing.contentDir = at("content");
        placing.targetDir = at("out");
        placing.overwrites = true;
        placing.mayMove = GetParam();
        const QString run = QStringLiteral("run.d");
        const QString text = QStringLiteral("run.txt");
        placing.names = {{run, run}, {text, text}};
        onExchange = [this] { write("out/run.d/later", "written meanwhile"); };
    }
    void TearDown() override { onExchange = {}; }
    QString at(const char* path) const { return dir.filePath(QString::fromLatin1(path)); }
    void write(const char* path, const QByteArray& content) const {
        ASSERT_TRUE(QDir().mkpath(QFileInfo(at(path)).path()));
        QFile file(at(path));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        ASSERT_EQ(file.write(content), content.size());
    }
    QByteArray read(const QString& path) const {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(nothing)");
    }
    //! One warning tells where the old directory is, with what was written in the last moment.
    void expectTold(const Error& error) const {
        const QString kept =
            QDir(at("out")).entryList({QStringLiteral("run.d.*.old")}, QDir::Dirs).value(0, {});
        ASSERT_FALSE(kept.isEmpty());
        EXPECT_EQ(read(at("out/") + kept + QStringLiteral("/later")), "written meanwhile");
        EXPECT_EQ(read(at("out/run.d/fid")), "new");
        ASSERT_EQ(error.warnings().size(), 1);
        EXPECT_TRUE(error.warnings().first().contains(kept)) << qPrintable(error.warnings().first());
    }

    QTemporaryDir dir;
    ContentPlacing placing;
};

INSTANTIATE_TEST_SUITE_P(Way, PlacingWarnings, ::testing::Bool(),
                         [](const auto& way) { return way.param ? "Moved" : "Copied"; });

TEST_P(PlacingWarnings, AreThoseOfASuccess) {
    const Error error = placing.run();
    EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    EXPECT_EQ(read(at("out/run.txt")), "text");
    expectTold(error);
}

TEST_P(PlacingWarnings, AreToldWithTheFailureOfALaterEntry) {
    ASSERT_TRUE(QDir().mkpath(at("out/run.txt")));
    const Error error = placing.run();
    EXPECT_TRUE(error.hasError());
    expectTold(error);
}

} // namespace
} // namespace halvane::host
