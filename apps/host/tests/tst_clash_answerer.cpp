#include <ClashAnswerer.h>

#include <gtest/gtest.h>

#include <QCoreApplication>

#include <optional>
#include <vector>

namespace halvane::host {
namespace {

using orx::ErrorCode;
using Choice = ClashAnswer::Choice;

Clash clashAt(const QString& path, const QString& madeBy = {}) {
    Clash clash;
    clash.existing = QFileInfo(path);
    clash.madeBy = madeBy;
    return clash;
}

//! What was decided, in the order in which it was heard; empty for what is still waiting.
class Asked {
public:
    explicit Asked(ClashAnswerer& answerer) : m_answerer(answerer) {
        QObject::connect(&answerer, &ClashAnswerer::asked,
                         [this](const Clash& clash) { open = clash.existing.filePath(); });
        QObject::connect(&answerer, &ClashAnswerer::withdrawn,
                         [this] { open = QStringLiteral("withdrawn"); });
    }
    int ask(const Clash& clash) {
        const auto index = size_t(m_decisions.size());
        m_decisions.emplace_back();
        return m_answerer.ask(
            clash, [this, index](const ClashAnswerer::Decision& decision) { m_decisions[index] = decision; });
    }
    const std::optional<ClashAnswerer::Decision>& of(size_t index) const {
        QCoreApplication::sendPostedEvents();
        return m_decisions[index];
    }
    //! What is asked about.
    QString question() const {
        QCoreApplication::sendPostedEvents();
        return open;
    }

    QString open;

private:
    ClashAnswerer& m_answerer;
    std::vector<std::optional<ClashAnswerer::Decision>> m_decisions;
};

const QString path = QStringLiteral("/data/run.mzML");
const QString other = QStringLiteral("/data/other.mzML");
const QString sibling = QStringLiteral("file:3@1");

TEST(ClashAnswerer, APolicyDecidesWithoutAsking) {
    for (const IfExists policy : {IfExists::Overwrite, IfExists::Skip, IfExists::Rename})
        EXPECT_EQ(**ClashAnswerer(policy, true).decided(clashAt(path)), policy);
    EXPECT_TRUE(
        ClashAnswerer(IfExists::Fail, true).decided(clashAt(path))->error().is(ErrorCode::AlreadyExists));
    EXPECT_FALSE(ClashAnswerer(IfExists::Ask, true).decided(clashAt(path)));
}

TEST(ClashAnswerer, OneFileAtATimeWritesToAPath) {
    ClashAnswerer answerer(IfExists::Overwrite);
    EXPECT_TRUE(answerer.beginWriting({path, other}));
    EXPECT_FALSE(answerer.beginWriting({other}));
    EXPECT_TRUE(answerer.beginWriting({QStringLiteral("/data/third.mzML")}));
    answerer.endWriting({path, other});
    EXPECT_TRUE(answerer.beginWriting({other}));
    EXPECT_FALSE(answerer.beginWriting({path, other}));
    EXPECT_TRUE(answerer.beginWriting({path})) << "what was refused takes nothing";
}

TEST(ClashAnswerer, WithNobodyToAskItFailsAndTellsTheOptions) {
    ClashAnswerer answerer(IfExists::Ask);
    EXPECT_EQ(answerer.policy(), IfExists::Fail);
    const orx::Error error = answerer.decided(clashAt(path))->error();
    EXPECT_TRUE(error.is(ErrorCode::AlreadyExists));
    for (const char* part :
         {"/data/run.mzML", "no terminal", "--if-exists overwrite", "--if-exists skip", "--if-exists rename"})
        EXPECT_TRUE(error.errorMessage().contains(QLatin1String(part))) << part;
}

TEST(ClashAnswerer, OneQuestionIsOpenAtATimeAndTheOthersWait) {
    ClashAnswerer answerer(IfExists::Ask, true);
    Asked asked(answerer);
    asked.ask(clashAt(path));
    asked.ask(clashAt(other));
    EXPECT_FALSE(asked.of(0)) << "nothing is heard before ask() returns";
    EXPECT_EQ(asked.question(), path);
    answerer.answer({Choice::Rename, false});
    EXPECT_EQ(**asked.of(0), IfExists::Rename);
    EXPECT_EQ(asked.question(), other);
    EXPECT_FALSE(asked.of(1));
    answerer.answer({Choice::Skip, false});
    EXPECT_EQ(**asked.of(1), IfExists::Skip);
    answerer.answer({Choice::Overwrite, true});
    EXPECT_EQ(answerer.policy(), IfExists::Ask) << "nothing was open";
}

TEST(ClashAnswerer, AnAnswerForAllIsThePolicyFromThenOnAndForThoseThatWait) {
    ClashAnswerer answerer(IfExists::Ask, true);
    Asked asked(answerer);
    asked.ask(clashAt(path));
    asked.ask(clashAt(other));
    asked.ask(clashAt(path, sibling));
    EXPECT_EQ(asked.question(), path);
    answerer.answer({Choice::Overwrite, true});
    EXPECT_EQ(**asked.of(0), IfExists::Overwrite);
    EXPECT_EQ(**asked.of(1), IfExists::Overwrite);
    EXPECT_TRUE(asked.of(2)->error().is(ErrorCode::AlreadyExists)) << "made by this download";
    EXPECT_EQ(asked.question(), path);
    EXPECT_EQ(answerer.policy(), IfExists::Overwrite);
}

TEST(ClashAnswerer, AQuestionThatIsWithdrawnMakesRoomForTheNext) {
    ClashAnswerer answerer(IfExists::Ask, true);
    Asked asked(answerer);
    const int first = asked.ask(clashAt(path));
    const int second = asked.ask(clashAt(path));
    asked.ask(clashAt(other));
    EXPECT_EQ(asked.question(), path);
    answerer.withdraw(second);
    EXPECT_EQ(asked.open, path) << "it was not open";
    answerer.withdraw(first);
    EXPECT_EQ(asked.open, QStringLiteral("withdrawn"));
    EXPECT_EQ(asked.question(), other);
    EXPECT_FALSE(asked.of(0));
    EXPECT_FALSE(asked.of(1));
}

TEST(ClashAnswerer, WhatThisDownloadMadeIsReplacedByAnAnswerOnly) {
    EXPECT_TRUE(ClashAnswerer(IfExists::Overwrite)
                    .decided(clashAt(path, sibling))
                    ->error()
                    .is(ErrorCode::AlreadyExists));
    EXPECT_EQ(**ClashAnswerer(IfExists::Rename).decided(clashAt(path, sibling)), IfExists::Rename);
    ClashAnswerer answerer(IfExists::Ask, true);
    Asked asked(answerer);
    asked.ask(clashAt(path, sibling));
    EXPECT_EQ(asked.question(), path);
    answerer.answer({Choice::Overwrite, true});
    EXPECT_EQ(**asked.of(0), IfExists::Overwrite);
    EXPECT_TRUE(answerer.decided(clashAt(path, sibling))->hasError());
}

TEST(ClashAnswerer, AfterQuittingNobodyIsAskedAgain) {
    ClashAnswerer answerer(IfExists::Ask, true);
    Asked asked(answerer);
    bool gaveUp = false;
    QObject::connect(&answerer, &ClashAnswerer::gaveUp, [&gaveUp] { gaveUp = true; });
    asked.ask(clashAt(path));
    asked.ask(clashAt(other));
    EXPECT_EQ(asked.question(), path);
    answerer.answer({Choice::Quit, false});
    EXPECT_TRUE(answerer.wantsToQuit() && gaveUp);
    EXPECT_TRUE(asked.of(0)->error().isCanceled());
    EXPECT_TRUE(asked.of(1)->error().isCanceled());
    EXPECT_TRUE(answerer.decided(clashAt(path))->error().isCanceled());
    EXPECT_EQ(asked.question(), path) << "the first and only one";
}

TEST(ClashAnswerer, RemembersWhoMadeAPath) {
    ClashAnswerer answerer(IfExists::Ask);
    RemoteItem item;
    item.type = RemoteItem::ItemType::File;
    item.id = 3;
    item.version = 1;
    answerer.remember(QStringLiteral("/data//run.mzML"), item);
    EXPECT_EQ(answerer.whoMade(path), sibling);
    EXPECT_EQ(answerer.whoMade(QStringLiteral("/data/other")), QString());
}

} // namespace
} // namespace halvane::host
