// An answer holds for what was shown, until the moment in which that is replaced. A program of its own, since
// it changes the target in the middle of its own flushes and renames.
#include "ItemDownloads.h"

#include <DownloadNames.h>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <mutex>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace {

std::mutex hookMutex;
//! What happens just before the next flush of a file in the directory.
std::function<void()> onFlush;
//! And just before two names in it are exchanged.
std::function<void()> onExchange;
QString watchedDirectory;
//! A directory that cannot be removed.
QString unremovable;

std::function<void()> takeHook(std::function<void()>& hook, const QString& path) {
    const std::lock_guard lock(hookMutex);
    if (!hook || !path.startsWith(watchedDirectory + u'/'))
        return {};
    return std::exchange(hook, {});
}

} // namespace

// The program's own definitions take the place of the C library's for the libraries too.
extern "C" int fsync(int descriptor) {
    const QString path = QFileInfo(QStringLiteral("/proc/self/fd/%1").arg(descriptor)).symLinkTarget();
    if (const auto hook = takeHook(onFlush, path))
        hook();
    return int(::syscall(SYS_fsync, descriptor));
}

extern "C" int rmdir(const char* path) noexcept {
    {
        const QFileInfo directory(QFile::decodeName(path));
        const std::lock_guard lock(hookMutex);
        if (!unremovable.isEmpty() && directory.canonicalFilePath() == unremovable) {
            errno = EBUSY;
            return -1;
        }
    }
    return int(::syscall(SYS_unlinkat, AT_FDCWD, path, AT_REMOVEDIR));
}

extern "C" int renameat2(int from, const char* oldName, int to, const char* newName,
                         unsigned int flags) noexcept {
    if (flags == RENAME_EXCHANGE) {
        const QFileInfo target(QFile::decodeName(newName));
        if (const auto hook = takeHook(onExchange, target.canonicalFilePath()))
            hook();
    }
    return int(::syscall(SYS_renameat2, from, oldName, to, newName, flags));
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

// What was fetched goes on under the free name that is asked for then, and nothing is left of another.
TEST_P(DownloadAnswers, WhatWasFetchedBeforeThatIsNotFetchedAgainForAFreeName) {
    for (const QByteArray& left : {QByteArray(), QByteArray("con")}) {
        const Wanted file = wanted(text("run"), "content", false);
        if (!left.isEmpty())
            put(DownloadNames::partialName(text("run (2)"), file.item.id, 1), left);
        forgetCalls();
        changeWhileFlushed(text("run"));
        EXPECT_EQ(get(file, {{Choice::Overwrite}, {Choice::Rename}}).outcome,
                  DownloadedFile::Outcome::Downloaded);
        expectChanged();
        EXPECT_EQ(tree(), (QStringList{text("run (2)=content"), text("run=of an instrument")}));
        EXPECT_EQ(contentCalls(), left.isEmpty() ? 1 : 2);
        ASSERT_TRUE(QFile::remove(at(text("run (2)"))));
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

// Everything is there, so that it is no failure.
TEST_P(DownloadAnswers, WhatAnAcquisitionWasUnpackedInIsToldWhenItCannotBeRemoved) {
    const Wanted file = wanted(text("run.d.vonk"), packedRun(1000), false);
    {
        const std::lock_guard lock(hookMutex);
        watchedDirectory = QFileInfo(at(QString())).canonicalFilePath();
        unremovable = watchedDirectory + u'/' +
                      DownloadNames::partialName(text("run.d.vonk-unpacked"), file.item.id, 1);
    }
    const DownloadedFile done = get(file, {});
    EXPECT_EQ(done.outcome, DownloadedFile::Outcome::Downloaded);
    EXPECT_TRUE(QFileInfo::exists(at(text("run.d/fid"))));
    {
        const std::lock_guard lock(hookMutex);
        EXPECT_TRUE(QFileInfo(unremovable).isDir());
        EXPECT_EQ(done.warnings.filter(QFileInfo(unremovable).fileName()).size(), 1)
            << qPrintable(done.warnings.join(u'\n'));
        unremovable.clear();
    }
    // The next run finds everything there, and that it can be removed now.
    const DownloadedFile again = get(file, {});
    EXPECT_EQ(again.outcome, DownloadedFile::Outcome::Unchanged);
    EXPECT_TRUE(again.warnings.isEmpty()) << qPrintable(again.warnings.join(u'\n'));
    EXPECT_EQ(QDir(at(QString())).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
              QStringList{text("run.d")});
}

// Too late to keep it from being replaced: it is kept beside it, and the result tells where.
TEST_P(DownloadAnswers, WhatComesToADirectoryInTheMomentOfItsReplacementIsKeptAndTold) {
    for (const bool useCache : {true, false}) {
        const Wanted file = wanted(text("run.d.vonk"), packedRun(1000), useCache);
        put(text("run.d/fid"), "old");
        {
            const std::lock_guard lock(hookMutex);
            watchedDirectory = QFileInfo(at(QString())).canonicalFilePath();
            onExchange = [this] { put(text("run.d/notes"), "of an instrument"); };
        }
        const DownloadedFile done = get(file, {{Choice::Overwrite}});
        EXPECT_EQ(done.outcome, DownloadedFile::Outcome::Downloaded);
        const QDir target(at(QString()));
        const QString kept = target.entryList({text("run.d.*.old")}, QDir::Dirs).value(0);
        ASSERT_FALSE(kept.isEmpty());
        EXPECT_TRUE(tree().contains(kept + text("/notes=of an instrument")));
        EXPECT_FALSE(tree().contains(text("run.d/notes=of an instrument")));
        EXPECT_EQ(done.warnings.filter(kept).size(), 1) << qPrintable(done.warnings.join(u'\n'));
        ASSERT_TRUE(QDir(target.filePath(kept)).removeRecursively());
    }
}

} // namespace
} // namespace orx::testing
