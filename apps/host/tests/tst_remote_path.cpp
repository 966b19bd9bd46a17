#include <RemoteItem.h>
#include <RemotePath.h>

#include <gtest/gtest.h>

using namespace halvane::host;

TEST(RemotePath, HoldsTheNamesBetweenSlashes) {
    const auto path = RemotePath::parse(QStringLiteral("/raw//2026/run 1.mzML"));
    ASSERT_FALSE(path.hasError());
    EXPECT_EQ(path->names(),
              (QStringList{QStringLiteral("raw"), QStringLiteral("2026"), QStringLiteral("run 1.mzML")}));
    EXPECT_FALSE(path->mustBeFolder());
    EXPECT_TRUE(RemotePath::parse(QStringLiteral("/raw/"))->mustBeFolder());
    EXPECT_TRUE(RemotePath::parse(QStringLiteral("/"))->isRoot());
}

TEST(RemotePath, RefusesWhatHasNoMeaning) {
    for (const char* text : {"", "raw", "raw/2026", "./raw", "/raw/..", "/./raw", "/raw/../x"})
        EXPECT_TRUE(RemotePath::parse(QString::fromUtf8(text)).error().is(orx::ErrorCode::InvalidArgument))
            << text;
    EXPECT_FALSE(RemotePath::parse(QStringLiteral("/.hidden/...")).hasError());
}

TEST(RemotePath, Joins) {
    EXPECT_EQ(RemotePath::join(QStringLiteral("/"), QStringLiteral("raw")), QStringLiteral("/raw"));
    EXPECT_EQ(RemotePath::join(QString(), QStringLiteral("raw")), QStringLiteral("/raw"));
    EXPECT_EQ(RemotePath::join(QStringLiteral("/raw"), QStringLiteral("a")), QStringLiteral("/raw/a"));
    EXPECT_EQ(RemotePath::fromChain({QStringLiteral("raw"), QStringLiteral("a")}), QStringLiteral("/raw/a"));
    EXPECT_EQ(RemotePath::fromChain({}), QStringLiteral("/"));
}

TEST(RemotePath, KnowsWhichNamesCannotBeLocalFiles) {
    EXPECT_TRUE(isUsableLocalName(QStringLiteral("run.mzML")));
    EXPECT_TRUE(isUsableLocalName(QStringLiteral("...")));
    EXPECT_TRUE(isUsableLocalName(QString(255, u'x')));
    for (const QString& name :
         {QString(), QStringLiteral("."), QStringLiteral(".."), QStringLiteral("a/b"),
          QStringLiteral("/etc/passwd"), QString(QChar(0)), QString(256, u'x'), QString(128, QChar(0xE9))})
        EXPECT_FALSE(isUsableLocalName(name)) << qPrintable(name);
}

TEST(RemoteItem, ShowsItsReference) {
    RemoteItem item;
    item.id = 7;
    EXPECT_EQ(item.reference(), QStringLiteral("folder:7"));
    item.type = RemoteItem::ItemType::File;
    item.version = 3;
    EXPECT_EQ(item.reference(), QStringLiteral("file:7@3"));
}
