#include "HalvaneAcknowledgedContents.h"

#include <gtest/gtest.h>

using namespace orx;

namespace {

const QString server = QStringLiteral("https://one:443");

} // namespace

TEST(AcknowledgedContents, AreKnownByServerFileAndVersion) {
    HalvaneAcknowledgedContents::record(server, 12, 3, QByteArray(64, 'A'));
    EXPECT_EQ(HalvaneAcknowledgedContents::find(server, 12, 3), QByteArray(64, 'a'));
    EXPECT_TRUE(HalvaneAcknowledgedContents::find(server, 12, 4).isEmpty());
    EXPECT_TRUE(HalvaneAcknowledgedContents::find(server, 13, 3).isEmpty());
    EXPECT_TRUE(HalvaneAcknowledgedContents::find(QStringLiteral("https://two:443"), 12, 3).isEmpty());
}

TEST(AcknowledgedContents, TheLastStatementCountsAndWhatIsNoChecksumDoesNot) {
    HalvaneAcknowledgedContents::record(server, 1, 1, QByteArray(64, '1'));
    HalvaneAcknowledgedContents::record(server, 1, 1, QByteArray(64, '2'));
    for (const QByteArray& bad :
         {QByteArray(), QByteArray(63, '3'), QByteArray(64, 'g'), QByteArray(128, '3')})
        HalvaneAcknowledgedContents::record(server, 1, 1, bad);
    EXPECT_EQ(HalvaneAcknowledgedContents::find(server, 1, 1), QByteArray(64, '2'));
}

TEST(AcknowledgedContents, TheFirstGoWhenThereAreTooMany) {
    const int most = int(HalvaneAcknowledgedContents::maxContents);
    for (int id = 1; id <= most + 1; ++id)
        HalvaneAcknowledgedContents::record(QStringLiteral("many"), id, 1, QByteArray(64, '4'));
    EXPECT_TRUE(HalvaneAcknowledgedContents::find(QStringLiteral("many"), 1, 1).isEmpty());
    EXPECT_FALSE(HalvaneAcknowledgedContents::find(QStringLiteral("many"), 2, 1).isEmpty());
    EXPECT_FALSE(HalvaneAcknowledgedContents::find(QStringLiteral("many"), most + 1, 1).isEmpty());
}

TEST(AcknowledgedContents, WhatAListingStatedIsKeptWholeAndSurvivesTheChecksumAlone) {
    const auto time = QDateTime::fromMSecsSinceEpoch(1'577'934'245'678, Qt::UTC);
    HalvaneAcknowledgedContents::recordStated(
        server, 20, 1, {7, QByteArray(64, 'b'), time, time.addDays(1), QStringLiteral("reference run")});
    HalvaneAcknowledgedContents::record(server, 20, 1, QByteArray(64, 'b'));
    const auto found = HalvaneAcknowledgedContents::findStated(server, 20, 1);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->size, 7);
    EXPECT_EQ(found->sha256, QByteArray(64, 'b'));
    EXPECT_EQ(found->sourceModifiedAt, time);
    EXPECT_EQ(found->modifiedAt, time.addDays(1));
    EXPECT_EQ(found->alias, QStringLiteral("reference run"));
    EXPECT_EQ(HalvaneAcknowledgedContents::find(server, 20, 1), QByteArray(64, 'b'));
    EXPECT_FALSE(HalvaneAcknowledgedContents::findStated(server, 20, 2));
}

TEST(AcknowledgedContents, AChecksumAloneIsNoStatement) {
    HalvaneAcknowledgedContents::record(server, 21, 1, QByteArray(64, 'c'));
    EXPECT_FALSE(HalvaneAcknowledgedContents::findStated(server, 21, 1));
    HalvaneAcknowledgedContents::recordStated(server, 22, 1, {7, QByteArray(64, 'd'), QDateTime()});
    HalvaneAcknowledgedContents::record(server, 22, 1, QByteArray(64, 'e'));
    EXPECT_FALSE(HalvaneAcknowledgedContents::findStated(server, 22, 1)) << "the size was that of another";
    EXPECT_EQ(HalvaneAcknowledgedContents::find(server, 22, 1), QByteArray(64, 'e'));
}

TEST(AcknowledgedContents, WhatIsForgottenIsNotFoundAndMayBeStatedAgain) {
    HalvaneAcknowledgedContents::recordStated(server, 23, 1, {0, QByteArray(64, 'f'), QDateTime()});
    HalvaneAcknowledgedContents::forget(server, 23, 1);
    HalvaneAcknowledgedContents::forget(server, 99, 1);
    EXPECT_FALSE(HalvaneAcknowledgedContents::findStated(server, 23, 1));
    EXPECT_TRUE(HalvaneAcknowledgedContents::find(server, 23, 1).isEmpty());
    HalvaneAcknowledgedContents::recordStated(server, 23, 1, {0, QByteArray(64, 'f'), QDateTime()});
    const auto found = HalvaneAcknowledgedContents::findStated(server, 23, 1);
    ASSERT_TRUE(found);
    EXPECT_FALSE(found->sourceModifiedAt.isValid());
}
