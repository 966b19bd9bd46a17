#include "../src/TextForms.h"

#include <gtest/gtest.h>

using namespace halvane::cli;
using std::chrono::seconds;

TEST(TextForms, ControlCharactersAreEscaped) {
    EXPECT_EQ(printable(QStringLiteral("run \u00e9 \U0001F9EA.mzML")),
              QStringLiteral("run \u00e9 \U0001F9EA.mzML"));
    EXPECT_EQ(printable(QStringLiteral("a\x1b[2Jb\nc\td")), QStringLiteral("a\\u{1B}[2Jb\\u{A}c\\u{9}d"));
    EXPECT_EQ(printable(QString(QChar(0x9B)) + QChar(0x7F) + QChar(0x2028)),
              QStringLiteral("\\u{9B}\\u{7F}\\u{2028}"));
    EXPECT_EQ(printable(QString(QChar(0))), QStringLiteral("\\u{0}"));
}

TEST(TextForms, ChangesOfDirectionAreEscapedOnTerminalsOnly) {
    const QString name = QStringLiteral("a\u202Eb");
    EXPECT_EQ(printable(name), name);
    EXPECT_EQ(printable(name, Escaping::AlsoDirectionMarks), QStringLiteral("a\\u{202E}b"));
}

TEST(TextForms, Sizes) {
    EXPECT_EQ(bytesText(0), QStringLiteral("0 B"));
    EXPECT_EQ(bytesText(1023), QStringLiteral("1023 B"));
    EXPECT_EQ(bytesText(1024), QStringLiteral("1.0 KiB"));
    EXPECT_EQ(bytesText(20LL * 1024 * 1024 + 512 * 1024), QStringLiteral("20.5 MiB"));
    EXPECT_EQ(bytesText(5LL * 1024 * 1024 * 1024 * 1024 * 1024), QStringLiteral("5120.0 TiB"));
}

TEST(TextForms, Durations) {
    EXPECT_EQ(durationText(seconds(7)), QStringLiteral("0:07"));
    EXPECT_EQ(durationText(seconds(750)), QStringLiteral("12:30"));
    EXPECT_EQ(durationText(seconds(3 * 3600 + 5 * 60)), QStringLiteral("3:05:00"));
}

TEST(TextForms, ProgressOfATreeTellsFilesAndBytes) {
    const qint64 mib = 1024 * 1024;
    const QString name = QStringLiteral("2026");
    EXPECT_EQ(treeProgressText(name, {312, 2000, 45 * mib, 100 * mib, true}, 5.0 * mib),
              QStringLiteral("2026  312 of 2000 files  45 %  45.0 MiB of 100.0 MiB  5.0 MiB/s  0:11 left"));
    EXPECT_EQ(treeProgressText(name, {3, 20, 5 * mib, 10 * mib, false}, 5.0 * mib),
              QStringLiteral("2026  3 of 20+ files  5.0 MiB of 10.0 MiB+  5.0 MiB/s"));
    EXPECT_EQ(treeProgressText(name, {312, 2000, 45 * mib, 100 * mib, true}, 0, 5.0 * mib),
              QStringLiteral("2026  312 of 2000 files  45 %  45.0 MiB of 100.0 MiB  0:11 left"))
        << "nothing moves, but what is there is read";
    EXPECT_EQ(treeProgressText(name, {0, 2, 0, 0, true}, 0),
              QStringLiteral("2026  0 of 2 files  0 B of 0 B"));
}

TEST(TextForms, ProgressOfATreeTellsWhatRuns) {
    const qint64 mib = 1024 * 1024;
    const QString name = QStringLiteral("2026");
    const QString running = QStringLiteral("run1.raw and 7 more");
    EXPECT_EQ(treeProgressText(name, {312, 2000, 45 * mib, 100 * mib, true, running}, 5.0 * mib),
              QStringLiteral("2026  312 of 2000 files  45 %  45.0 MiB of 100.0 MiB  5.0 MiB/s  0:11 left  "
                             "run1.raw and 7 more"));
    EXPECT_EQ(treeProgressText(name, {3, 20, 5 * mib, 10 * mib, false, running}, 0),
              QStringLiteral("2026  3 of 20+ files  5.0 MiB of 10.0 MiB+  run1.raw and 7 more"));
    EXPECT_EQ(treeProgressText(name, {20, 20, 10 * mib, 10 * mib, true, {}}, 5.0 * mib),
              QStringLiteral("2026  20 of 20 files  100 %  10.0 MiB of 10.0 MiB  5.0 MiB/s  0:00 left"));
}

TEST(TextForms, ProgressLeavesOutWhatIsUnknown) {
    const qint64 mib = 1024 * 1024;
    EXPECT_EQ(progressText(QStringLiteral("run"), 45 * mib, 100 * mib, 5.0 * mib, seconds(11)),
              QStringLiteral("run  45 %  45.0 MiB of 100.0 MiB  5.0 MiB/s  0:11 left"));
    EXPECT_EQ(progressText(QStringLiteral("run"), 0, 0, 0, seconds(-1)),
              QStringLiteral("run  100 %  0 B of 0 B"));
}
