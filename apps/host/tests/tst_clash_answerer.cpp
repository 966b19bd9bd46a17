#include <ClashAnswerer.h>

#include <gtest/gtest.h>

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

const QString path = QStringLiteral("/data/run.mzML");
const QString sibling = QStringLiteral("file:3@1");

TEST(ClashAnswerer, APolicyDecidesWithoutAsking) {
    int asked = 0;
    const auto question = [&asked](const Clash&) {
        ++asked;
        return ClashAnswer{};
    };
    for (const IfExists policy : {IfExists::Overwrite, IfExists::Skip, IfExists::Rename})
        EXPECT_EQ(*ClashAnswerer(policy, question).decide(clashAt(path)), policy);
    EXPECT_TRUE(
        ClashAnswerer(IfExists::Fail, question).decide(clashAt(path)).error().is(ErrorCode::AlreadyExists));
    EXPECT_EQ(asked, 0);
}

TEST(ClashAnswerer, OneFileAtATimeWritesToAPath) {
    ClashAnswerer answerer(IfExists::Overwrite);
    const QString other = QStringLiteral("/data/other.mzML");
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
    const orx::Error error = answerer.decide(clashAt(path)).error();
    EXPECT_TRUE(error.is(ErrorCode::AlreadyExists));
    for (const char* part :
         {"/data/run.mzML", "no terminal", "--if-exists overwrite", "--if-exists skip", "--if-exists rename"})
        EXPECT_TRUE(error.errorMessage().contains(QLatin1String(part))) << part;
}

TEST(ClashAnswerer, AnAnswerForAllIsThePolicyFromThenOn) {
    QList<ClashAnswer> answers{{Choice::Skip, false}, {Choice::Overwrite, true}};
    ClashAnswerer answerer(IfExists::Ask, [&answers](const Clash&) { return answers.takeFirst(); });
    EXPECT_EQ(*answerer.decide(clashAt(path)), IfExists::Skip);
    EXPECT_EQ(answerer.policy(), IfExists::Ask);
    EXPECT_EQ(*answerer.decide(clashAt(path)), IfExists::Overwrite);
    EXPECT_EQ(answerer.policy(), IfExists::Overwrite);
    EXPECT_EQ(*answerer.decide(clashAt(path)), IfExists::Overwrite);
    EXPECT_TRUE(answers.isEmpty());
}

TEST(ClashAnswerer, WhatThisDownloadMadeIsReplacedByAnAnswerOnly) {
    EXPECT_TRUE(ClashAnswerer(IfExists::Overwrite)
                    .decide(clashAt(path, sibling))
                    .error()
                    .is(ErrorCode::AlreadyExists));
    EXPECT_EQ(*ClashAnswerer(IfExists::Rename).decide(clashAt(path, sibling)), IfExists::Rename);
    ClashAnswerer answerer(IfExists::Ask, [](const Clash&) { return ClashAnswer{Choice::Overwrite, true}; });
    EXPECT_EQ(*answerer.decide(clashAt(path, sibling)), IfExists::Overwrite);
    EXPECT_TRUE(answerer.decide(clashAt(path, sibling)).hasError());
}

TEST(ClashAnswerer, AfterQuittingNobodyIsAskedAgain) {
    int asked = 0;
    ClashAnswerer answerer(IfExists::Ask, [&asked](const Clash&) {
        ++asked;
        return ClashAnswer{Choice::Quit, false};
    });
    EXPECT_TRUE(answerer.decide(clashAt(path)).error().isCanceled());
    EXPECT_TRUE(answerer.wantsToQuit());
    EXPECT_TRUE(answerer.decide(clashAt(path)).error().isCanceled());
    EXPECT_EQ(asked, 1);
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
