// An answer holds for what was shown, until the moment in which that is replaced. A program of its own, since
// it changes the target in the middle of its own flushes.
#include "ItemDownloads.h"

#include <functional>
#include <mutex>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace {

std::mutex hookMutex;
//! What happens just before the next flush of a file in the directory.
std::function<void()> onFlush;
QString watchedDirectory;

std::function<void()> takeHook(int descriptor) {
    const QString path = QFileInfo(QStringLiteral("/proc/self/fd/%1").arg(descriptor)).symLinkTarget();
    const std::lock_guard lock(hookMutex);
    if (!onFlush || !path.startsWith(watchedDirectory + u'/'))
        return {};
    return std::exchange(onFlush, {});
}

} // namespace

// The program's own definition takes the place of the C library's for the libraries too.
extern "C" int fsync(int descriptor) {
    if (const auto hook = takeHook(descriptor))
        hook();
    return int(::syscall(SYS_fsync, descriptor));
}

namespace orx::testing {
namespace {

using halvane::host::Clash;
using halvane::host::ClashAnswer;
using halvane::host::ClashAnswerer;
using halvane::host::DownloadedFile;
using halvane::host::IfExists;
using halvane::host::ItemDownloadTask;
using Choice = ClashAnswer::Choice;

class DownloadAnswers : public ItemDownloads {
protected:
    //! Asks each time for one more of \a answers.
    DownloadedFile get(const Wanted& file, QList<ClashAnswer> answers) const {
        ClashAnswerer answerer(IfExists::Ask, true);
        QObject::connect(&answerer, &ClashAnswerer::asked, &answerer, [&](const Clash&) {
            answerer.answer(answers.isEmpty() ? ClashAnswer{Choice::Quit} : answers.takeFirst());
        });
        const auto task = ItemDownloadTask::create(file, answerer);
        const Error error = run(*task);
        EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
        EXPECT_TRUE(answers.isEmpty()) << "as often as that a person is asked";
        return task->result();
    }
    void changeWhileFlushed(const QString& name) const {
        put(name, "local");
        writeWhileFlushed(name);
    }
    //! When the content that is to replace it is whole and just being flushed: the file \a name, or one in a
    //! directory.
    void writeWhileFlushed(const QString& name) const {
        const std::lock_guard lock(hookMutex);
        watchedDirectory = QFileInfo(at(QString())).canonicalFilePath();
        onFlush = [this, name] { put(name, "of an instrument"); };
    }
    static void expectChanged() {
        const std::lock_guard lock(hookMutex);
        EXPECT_FALSE(bool(onFlush)) << "it was flushed";
    }
};
INSTANTIATE_TEST_SUITE_P(Real, DownloadAnswers, ::testing::Values(Backend::Real), backendName);

TEST_P(DownloadAnswers, WhatChangesWhileItsSuccessorIsFlushedIsAskedAboutAgain) {
    for (const bool useCache : {true, false}) {
        const Wanted file = wanted(text("run"), "content", useCache);
        changeWhileFlushed(text("run"));
        EXPECT_EQ(get(file, {{Choice::Overwrite}, {Choice::Skip}}).outcome, DownloadedFile::Outcome::Skipped);
        expectChanged();
        EXPECT_EQ(tree(), QStringList{text("run=of an instrument")});
        changeWhileFlushed(text("run"));
        EXPECT_EQ(get(file, {{Choice::Overwrite}, {Choice::Overwrite}}).outcome,
                  DownloadedFile::Outcome::Downloaded);
        expectChanged();
        EXPECT_EQ(tree(), QStringList{text("run=content")});
    }
}

TEST_P(DownloadAnswers, AnAnswerForAllHoldsForThatToo) {
    for (const bool useCache : {true, false}) {
        const Wanted file = wanted(text("run"), "content", useCache);
        changeWhileFlushed(text("run"));
        EXPECT_EQ(get(file, {{Choice::Overwrite, true}}).outcome, DownloadedFile::Outcome::Downloaded);
        expectChanged();
        EXPECT_EQ(tree(), QStringList{text("run=content")});
    }
}

TEST_P(DownloadAnswers, SoDoesWhatAPackedAcquisitionHolds) {
    const QByteArray packed = packedFile(text("run.raw"), "content");
    const Wanted file = wanted(text("run.raw.vonk"), packed, true);
    changeWhileFlushed(text("run.raw"));
    EXPECT_EQ(get(file, {{Choice::Overwrite}, {Choice::Skip}}).outcome, DownloadedFile::Outcome::Skipped);
    expectChanged();
    EXPECT_EQ(tree(), QStringList{text("run.raw=of an instrument")});
    changeWhileFlushed(text("run.raw"));
    EXPECT_EQ(get(file, {{Choice::Overwrite}, {Choice::Overwrite}}).outcome,
              DownloadedFile::Outcome::Downloaded);
    EXPECT_EQ(tree(), QStringList{text("run.raw=content")});
}

// What is made of a directory is not what was shown either when something comes there meanwhile.
TEST_P(DownloadAnswers, SoDoesADirectoryWhichIsNotFetchedAgainForThat) {
    const Wanted file = wanted(text("run.d.vonk"), packedRun(1000), true);
    put(text("run.d/fid"), "old");
    writeWhileFlushed(text("run.d/notes"));
    EXPECT_EQ(get(file, {{Choice::Overwrite}, {Choice::Skip}}).outcome, DownloadedFile::Outcome::Skipped);
    expectChanged();
    EXPECT_EQ(tree(),
              (QStringList{text("run.d/"), text("run.d/fid=old"), text("run.d/notes=of an instrument")}));

    // Where nobody is asked it fails, since trying again could go on for ever.
    forgetCalls();
    writeWhileFlushed(text("run.d/more"));
    ClashAnswerer answerer(IfExists::Overwrite);
    const auto task = ItemDownloadTask::create(file, answerer);
    const Error error = run(*task);
    expectChanged();
    EXPECT_TRUE(error.is(ErrorCode::FileChanged)) << qPrintable(error.errorMessage());
    EXPECT_TRUE(tree().contains(text("run.d/fid=old")) &&
                tree().contains(text("run.d/more=of an instrument")));
    EXPECT_EQ(contentCalls(), 1) << "only what it holds was asked for";
}

} // namespace
} // namespace orx::testing
