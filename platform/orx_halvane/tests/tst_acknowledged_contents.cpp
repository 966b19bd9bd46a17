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
