// What shells and man read about the commands, taken to real shells and compared with what --help says.
#include "Client.h"

#include <QFile>
#include <QRegularExpression>

#include <gtest/gtest.h>

using namespace orx::testing;

namespace {

QByteArray outputOf(const QString& program, const QStringList& arguments, const QByteArray& input = {}) {
    QProcess process;
    process.setProcessChannelMode(QProcess::SeparateChannels);
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    EXPECT_TRUE(process.waitForFinished(-1)) << program.toStdString();
    EXPECT_EQ(process.exitCode(), 0) << process.readAllStandardError().toStdString();
    EXPECT_EQ(process.readAllStandardError(), QByteArray());
    return process.readAllStandardOutput();
}

class Completion : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* shell : {"bash", "zsh", "fish"}) {
            QFile script(m_client.path(shell));
            ASSERT_TRUE(script.open(QIODevice::WriteOnly));
            script.write(m_client.mustRun({"completion", shell}).out);
        }
    }

    //! What bash offers for the last of \a words.
    QStringList bash(const QStringList& words) const {
        const QByteArray out = outputOf(
            "bash", QStringList{"-c",
                                "source \"$0\"; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _halvane; "
                                "printf '%s\\n' \"${COMPREPLY[@]}\"",
                                m_client.path("bash"), "halvane"} +
                        words);
        return QString::fromUtf8(out).split('\n', Qt::SkipEmptyParts);
    }

    //! What fish offers, without the descriptions.
    QStringList fish(const QString& line) const {
        const QByteArray out =
            outputOf("fish", {"--no-config", "-c",
                              "source " + m_client.path("fish") + "; complete -C 'halvane " + line + "'"});
        QStringList words;
        for (const QString& offer : QString::fromUtf8(out).split('\n', Qt::SkipEmptyParts))
            words.append(offer.section('\t', 0, 0));
        return words;
    }

    //! The commands that --help of \a command lists.
    QStringList commands(const QStringList& command = {}) const {
        const QString help = m_client.mustRun(command + QStringList{"--help"}).out;
        const QString list =
            help.section("Subcommands:\n", 1).section("\n\n", 0, 0).section("\nExamples", 0, 0);
        static const QRegularExpression first("^  ([a-z-]+)", QRegularExpression::MultilineOption);
        QStringList words;
        for (auto found = first.globalMatch(list); found.hasNext();)
            words.append(found.next().captured(1));
        return words;
    }

    QStringList longOptions(const QStringList& command) const {
        const QString help = m_client.mustRun(command + QStringList{"--help"}).out;
        static const QRegularExpression option("^  (?:-[a-zA-Z],)?(--[a-z-]+)",
                                               QRegularExpression::MultilineOption);
        QStringList words;
        for (auto found = option.globalMatch(help); found.hasNext();)
            words.append(found.next().captured(1));
        return words;
    }

    Client m_client;
};

TEST_F(Completion, BashAndFishOfferEveryCommandOfTheHelp) {
    const QStringList expected = commands();
    ASSERT_GE(expected.size(), 12);
    EXPECT_EQ(bash({""}), expected);
    QStringList sorted = expected;
    sorted.sort();
    EXPECT_EQ(fish(""), sorted);
    EXPECT_EQ(bash({"cache", ""}), commands({"cache"}));
    EXPECT_EQ(bash({"--json", "cache", "pr"}), QStringList{"prune"});
}

TEST_F(Completion, BashAndFishOfferEveryOptionOfEveryHelp) {
    QList<QStringList> all{{}};
    for (const QString& command : commands())
        all.append({command});
    for (const QString& command : commands({"cache"}))
        all.append({"cache", command});
    for (const QStringList& command : all) {
        const QStringList inBash = bash(command + QStringList{"--"});
        const QStringList inFish = fish(command.join(' ') + " --");
        ASSERT_TRUE(longOptions(command).contains("--help"));
        for (const QString& option : longOptions(command)) {
            EXPECT_TRUE(inBash.contains(option)) << command.join(' ').toStdString() << option.toStdString();
            EXPECT_TRUE(inFish.contains(option)) << command.join(' ').toStdString() << option.toStdString();
        }
    }
}

TEST_F(Completion, ValuesOfOptionsAreOffered) {
    EXPECT_EQ(bash({"get", "--if-exists", "o"}), QStringList{"overwrite"});
    EXPECT_EQ(fish("get --if-exists o"), QStringList{"overwrite"});
    EXPECT_EQ(bash({"completion", "z"}), QStringList{"zsh"});
    EXPECT_EQ(fish("completion z"), QStringList{"zsh"});
    EXPECT_EQ(bash({"get", "--as", ""}), QStringList()) << "nobody but the user knows a name";
}

TEST_F(Completion, LocalPathsAreOfferedWhereTheyAreExpected) {
    QFile file(m_client.path("a run.mzML"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    const QString start = m_client.path("a r");
    EXPECT_EQ(bash({"put", start}), QStringList{m_client.path("a run.mzML")});
    EXPECT_EQ(bash({"--trace", start}), QStringList{m_client.path("a run.mzML")});
    EXPECT_EQ(bash({"get", "/", "--to", start}), QStringList()) << "a directory is wanted there";
    EXPECT_EQ(bash({"info", start}), QStringList()) << "that is the path of a remote item";
}

TEST_F(Completion, TheScriptForZshIsOne) {
    outputOf("zsh", {"-n", m_client.path("zsh")});
    const QString script = m_client.mustRun({"completion", "zsh"}).out;
    EXPECT_TRUE(script.startsWith("#compdef halvane\n"));
    for (const QString& command : commands())
        EXPECT_TRUE(script.contains("'" + command + ":")) << command.toStdString();
}

TEST_F(Completion, AnUnknownShellIsRefusedAndTheKnownOnesAreNamed) {
    const Outcome outcome = m_client.run({"completion", "tcsh"});
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_TRUE(outcome.err.contains("{bash,zsh,fish}")) << outcome.err.toStdString();
}

TEST_F(Completion, TheManualPageIsFreeOfMistakesAndNamesEveryOption) {
    const QByteArray page = m_client.mustRun({"man-page"}).out;
    const QString text = outputOf("groff", {"-man", "-ww", "-Tascii", "-P-c", "-P-b", "-P-u", "-P-o"}, page);
    for (const QString& command : commands()) {
        EXPECT_TRUE(text.contains("halvane " + command)) << command.toStdString();
        for (const QString& option : longOptions({command}))
            EXPECT_TRUE(text.contains(option)) << option.toStdString();
    }
    EXPECT_TRUE(text.contains("HALVANE_CONFIG_DIR"));
    EXPECT_TRUE(text.contains("Exit codes:"));
}

} // namespace
