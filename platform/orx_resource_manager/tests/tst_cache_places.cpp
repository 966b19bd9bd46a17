#include "CacheFixture.h"

using namespace orx;

namespace {

const QString kEntry = QStringLiteral("server/file/12/3/run1.mzML");

class CachePlacesTest : public orx::testing::CacheFixture {
protected:
    //! Changes what lies at the entry's place, and gives it back the time it had.
    void changeKeepingTime(const QByteArray& content) {
        struct stat before {};
        const QByteArray name = QFile::encodeName(placeOf(kEntry));
        ASSERT_EQ(::stat(name.constData(), &before), 0);
        ASSERT_TRUE(orx::testing::writeFile(placeOf(kEntry), content));
        const struct timespec times[2] = {before.st_atim, before.st_mtim};
        ASSERT_EQ(::utimensat(AT_FDCWD, name.constData(), times, 0), 0);
    }
};

struct SubPathCase {
    const char* name;
    QString text;
    const char* reason;
};

class RefusedSubPath : public CachePlacesTest, public ::testing::WithParamInterface<SubPathCase> {};

} // namespace

TEST_P(RefusedSubPath, IsRefusedEverywhereAndLeavesNothing) {
    const QString& text = GetParam().text;
    const auto path = cache.expectedPath(text);
    ASSERT_TRUE(path.hasError());
    EXPECT_TRUE(path.error().is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(path.errorMessage().contains(QString::fromLatin1(GetParam().reason)))
        << path.errorMessage().toStdString();
    EXPECT_FALSE(cache.contains(text));
    EXPECT_FALSE(cache.lease(text));
    EXPECT_TRUE(cache.remove(text).is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(cache.setCleanupPolicy(text, ResourceCleanupPolicy::Keep).is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(
        cache.add(nullptr, text, Path(this->path(QStringLiteral("a")))).is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(cache.add(nullptr, text, [] { return Error(); }).is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(fill(text, "x").is(ErrorCode::InvalidArgument));
    EXPECT_FALSE(QFileInfo::exists(root()));
}

INSTANTIATE_TEST_SUITE_P(
    Cache, RefusedSubPath,
    ::testing::Values(SubPathCase{"Empty", QString(), "it is empty"},
                      SubPathCase{"Absolute", QStringLiteral("/etc/passwd"), "it is absolute"},
                      SubPathCase{"Up", QStringLiteral("../a"), "\"..\""},
                      SubPathCase{"UpInside", QStringLiteral("a/../../b"), "\"..\""},
                      SubPathCase{"UpAtEnd", QStringLiteral("a/.."), "\"..\""},
                      SubPathCase{"Dot", QStringLiteral("a/./b"), "\".\""},
                      SubPathCase{"EmptyComponent", QStringLiteral("a//b"), "an empty component"},
                      SubPathCase{"EndsWithSeparator", QStringLiteral("a/"), "an empty component"},
                      SubPathCase{"Nul", QStringLiteral("a") + QChar(u'\0') + QStringLiteral("b"), "a NUL"},
                      SubPathCase{"LongComponent", QString(256, u'a'), "longer than 255 bytes"},
                      SubPathCase{"LongInBytesOnly", QString(128, QChar(0xe4)), "longer than 255 bytes"},
                      SubPathCase{"LoneSurrogate", QString(QChar(0xd800)), "cannot hold"},
                      SubPathCase{"WholeTooLong", QStringLiteral("abcdefg/").repeated(520) + u'a',
                                  "too long"}),
    [](const auto& tested) { return std::string(tested.param.name); });

TEST_F(CachePlacesTest, NamesThatFileSystemsHoldAreGoodAsTheyAre) {
    for (const QString& good :
         {QStringLiteral("a"), QStringLiteral("..."), QStringLiteral("..a/b.."), QStringLiteral("a b/\\\n\""),
          QString(255, u'a'), QString(127, QChar(0xe4)), QStringLiteral("state/cache.sqlite")}) {
        const auto path = cache.expectedPath(good);
        ASSERT_TRUE(path) << path.errorMessage().toStdString();
        EXPECT_EQ(path->toString(), placeOf(good));
    }
    EXPECT_FALSE(QFileInfo::exists(root()));
}

TEST_F(CachePlacesTest, AnEntryIsThereOnceFilled) {
    EXPECT_FALSE(cache.contains(kEntry));
    ASSERT_FALSE(fill(kEntry, "content").hasError());
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_EQ(orx::testing::readFile(cache.expectedPath(kEntry)->toString()), "content");
    const auto entries = cache.entries();
    ASSERT_TRUE(entries);
    ASSERT_EQ(entries->size(), 1);
    EXPECT_EQ(entries->first().subPath, kEntry);
    EXPECT_EQ(entries->first().type, PathType::File);
    EXPECT_EQ(entries->first().bytes, 7);
    EXPECT_EQ(entries->first().files, 1);
    EXPECT_EQ(entries->first().sha256, orx::testing::sha256("content"));
    EXPECT_EQ(entries->first().policy, ResourceCleanupPolicy::Automatic);
    EXPECT_TRUE(staged().isEmpty());
}

TEST_F(CachePlacesTest, OnlyTheOwnerMayLookIntoTheCache) {
    ASSERT_FALSE(fill(kEntry, "content").hasError());
    for (const QString& directory : {root(), root() + QStringLiteral("/content"),
                                     QFileInfo(database()).path(), QFileInfo(placeOf(kEntry)).path()}) {
        struct stat status {};
        ASSERT_EQ(::stat(QFile::encodeName(directory).constData(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0700u) << directory.toStdString();
    }
}

TEST_F(CachePlacesTest, ATruncatedEntryOfTheSameTimeIsNotThere) {
    ASSERT_FALSE(fill(kEntry, "content").hasError());
    changeKeepingTime("cont");
    EXPECT_FALSE(cache.contains(kEntry));
    EXPECT_FALSE(cache.lease(kEntry));
    ASSERT_FALSE(fill(kEntry, "content").hasError());
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "content");
    EXPECT_TRUE(staged().isEmpty());
}

TEST_F(CachePlacesTest, AnEntryOfTheSameSizeAndAnotherTimeIsNotThere) {
    ASSERT_FALSE(fill(kEntry, "content").hasError());
    const struct timespec times[2] = {{1, 0}, {1, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(placeOf(kEntry)).constData(), times, 0), 0);
    EXPECT_FALSE(cache.contains(kEntry));
    EXPECT_FALSE(cache.lease(kEntry));
}

TEST_F(CachePlacesTest, AMissingFileIsNotThere) {
    ASSERT_FALSE(fill(kEntry, "content").hasError());
    ASSERT_TRUE(QFile::remove(placeOf(kEntry)));
    EXPECT_FALSE(cache.contains(kEntry));
    EXPECT_FALSE(cache.lease(kEntry));
    ASSERT_FALSE(fill(kEntry, "content").hasError());
    EXPECT_TRUE(cache.contains(kEntry));
}

TEST_F(CachePlacesTest, ContentWithoutARecordIsNotThereAndIsReplaced) {
    ASSERT_TRUE(subPaths().isEmpty()); // makes the cache
    ASSERT_TRUE(orx::testing::writeFile(placeOf(kEntry), "planted"));
    EXPECT_FALSE(cache.contains(kEntry));
    ASSERT_FALSE(fill(kEntry, "content").hasError());
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "content");
}

//! A directory's entry.
class CacheDirectoryPlacesTest : public CachePlacesTest {
protected:
    //! Whether the entry had to be fetched.
    bool fill() {
        bool isFetched = false;
        const auto fetch = [&isFetched](const DirPath& directory) {
            isFetched = true;
            const QString top = directory.child(QStringLiteral("folder"));
            EXPECT_TRUE(QDir().mkpath(top + QStringLiteral("/empty")));
            EXPECT_TRUE(orx::testing::writeFile(top + QStringLiteral("/a"), "1"));
            EXPECT_TRUE(orx::testing::writeFile(top + QStringLiteral("/b/c"), "22"));
            return probes::taskWith(QVariant());
        };
        const auto task = cache.fillTask(nullptr, kFolder, fetch, ResourceCache::FillMode::Missing);
        task->exec();
        EXPECT_FALSE(task->waitForFinished().hasError());
        EXPECT_TRUE(cache.contains(kFolder));
        return isFetched;
    }
    QString in(const char* name) const { return placeOf(kFolder) + u'/' + QString::fromLatin1(name); }

    const QString kFolder = QStringLiteral("server/folder");
};

TEST_F(CacheDirectoryPlacesTest, IsTakenAsItIsAsLongAsNothingInItChanges) {
    ASSERT_TRUE(fill());
    EXPECT_EQ(cache.entries()->first().files, 2);
    EXPECT_EQ(cache.entries()->first().bytes, 3);
    EXPECT_FALSE(fill());
    const std::function<bool()> changes[] = {
        [this] { return orx::testing::writeFile(in("more"), ""); },
        [this] { return QFile::remove(in("b/c")); },
        [this] { return QDir().rmdir(in("empty")); },
        [this] { return orx::testing::writeFile(in("b/c"), "333"); },
    };
    for (const auto& change : changes) {
        ASSERT_TRUE(change());
        EXPECT_TRUE(fill());
        EXPECT_EQ(orx::testing::readFile(in("b/c")), "22");
        EXPECT_TRUE(QFileInfo(in("empty")).isDir());
        EXPECT_FALSE(QFileInfo::exists(in("more")));
        EXPECT_FALSE(fill());
    }
}

TEST_F(CacheDirectoryPlacesTest, IsNotThereAnyMoreOnceAWorkerFoundItDamaged) {
    ASSERT_TRUE(fill());
    ASSERT_TRUE(QFile::remove(in("b/c")));
    EXPECT_TRUE(cache.contains(kFolder)); // nobody has looked into it
    const auto refused = cache.fillTask(
        nullptr, kFolder,
        [](const DirPath&) { return probes::taskWith(QVariant(), Error(ErrorCode::Busy, u"not now"_qs)); },
        ResourceCache::FillMode::Missing);
    refused->exec();
    EXPECT_TRUE(refused->waitForFinished().is(ErrorCode::Busy));
    EXPECT_FALSE(cache.contains(kFolder));
    EXPECT_FALSE(cache.lease(kFolder));
    EXPECT_TRUE(fill());
}

TEST_F(CacheDirectoryPlacesTest, IsNotThereWhenSomethingElseLiesThere) {
    ASSERT_TRUE(fill());
    ASSERT_TRUE(QDir(placeOf(kFolder)).removeRecursively());
    EXPECT_FALSE(cache.contains(kFolder));
    ASSERT_TRUE(orx::testing::writeFile(placeOf(kFolder), "a file"));
    EXPECT_FALSE(cache.contains(kFolder));
    EXPECT_FALSE(cache.lease(kFolder));
    EXPECT_TRUE(fill());
    ASSERT_TRUE(QDir(placeOf(kFolder)).removeRecursively());
    ASSERT_TRUE(QFile::link(root(), placeOf(kFolder)));
    EXPECT_FALSE(cache.contains(kFolder));
    EXPECT_FALSE(cache.lease(kFolder));
}

TEST_F(CachePlacesTest, EntriesDoNotLieWithinOneAnother) {
    ASSERT_FALSE(fill(QStringLiteral("a/b"), "1").hasError());
    EXPECT_TRUE(fill(QStringLiteral("a"), "2").is(ErrorCode::AlreadyExists));
    EXPECT_TRUE(fill(QStringLiteral("a/b/c"), "3").hasError());
    EXPECT_EQ(subPaths(), QStringList{QStringLiteral("a/b")});
    EXPECT_TRUE(cache.contains(QStringLiteral("a/b")));
    EXPECT_TRUE(cache.remove(QStringLiteral("a")).is(ErrorCode::InvalidArgument));
    EXPECT_FALSE(fill(QStringLiteral("a/b0"), "4").hasError());
}

TEST_F(CachePlacesTest, APlantedLinkIsNeverFollowed) {
    const QString outside = path(QStringLiteral("outside"));
    ASSERT_TRUE(orx::testing::writeFile(outside + QStringLiteral("/12/3/run1.mzML"), "precious"));
    ASSERT_FALSE(fill(kEntry, "precious").hasError());
    ASSERT_TRUE(QDir(placeOf(QStringLiteral("server/file"))).removeRecursively());
    ASSERT_TRUE(QFile::link(outside, placeOf(QStringLiteral("server/file"))));
    EXPECT_FALSE(cache.contains(kEntry));
    EXPECT_FALSE(cache.lease(kEntry));
    EXPECT_TRUE(fill(kEntry, "new").is(ErrorCode::InvalidArgument));
    EXPECT_FALSE(cache.add(nullptr, kEntry, Path(outside + QStringLiteral("/12/3/run1.mzML"))).hasError());
    EXPECT_EQ(cache.waitForPending().size(), 1);
    EXPECT_TRUE(cache.remove(kEntry).is(ErrorCode::InvalidArgument));
    EXPECT_EQ(orx::testing::readFile(outside + QStringLiteral("/12/3/run1.mzML")), "precious");
    ASSERT_TRUE(cache.prune({0, std::nullopt}));
    EXPECT_EQ(orx::testing::readFile(outside + QStringLiteral("/12/3/run1.mzML")), "precious");
    EXPECT_FALSE(QFileInfo(placeOf(QStringLiteral("server/file"))).isSymLink());
    EXPECT_FALSE(fill(kEntry, "new").hasError());
}

TEST_F(CachePlacesTest, ALinkInThePlaceOfTheContentIsReplacedNotFollowed) {
    const QString outside = path(QStringLiteral("outside"));
    ASSERT_TRUE(orx::testing::writeFile(outside, "content"));
    ASSERT_FALSE(fill(kEntry, "content").hasError());
    ASSERT_TRUE(QFile::remove(placeOf(kEntry)));
    ASSERT_TRUE(QFile::link(outside, placeOf(kEntry)));
    EXPECT_FALSE(cache.contains(kEntry));
    const Error error = cache.remove(kEntry);
    EXPECT_FALSE(error.hasError()) << error.errorMessage().toStdString();
    EXPECT_EQ(orx::testing::readFile(outside), "content");
    EXPECT_FALSE(QFileInfo(placeOf(kEntry)).isSymLink());
}

TEST_F(CachePlacesTest, ACacheRemovedByHandStartsAnew) {
    ASSERT_FALSE(fill(kEntry, "content").hasError());
    ASSERT_TRUE(QDir(root()).removeRecursively());
    EXPECT_FALSE(cache.contains(kEntry));
    ASSERT_FALSE(fill(kEntry, "content").hasError());
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_EQ(subPaths(), QStringList{kEntry});
}

TEST_F(CachePlacesTest, ADirectoryThatIsNoCacheIsRefusedAndLeftAsItIs) {
    for (const char* const foreign :
         {"content/site/index.html", "state/notes", "state/staging/add-1/notes"}) {
        SCOPED_TRACE(foreign);
        const QString file = root() + u'/' + QString::fromLatin1(foreign);
        ASSERT_TRUE(orx::testing::writeFile(file, "precious"));
        const QStringList before = QDir(root()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
        const Error error = fill(kEntry, "content");
        EXPECT_TRUE(error.is(ErrorCode::InvalidArgument));
        EXPECT_TRUE(error.errorMessage().contains(root())) << qPrintable(error.errorMessage());
        EXPECT_TRUE(cache.prune({0, std::nullopt}).hasError());
        EXPECT_TRUE(cache.add(nullptr, kEntry, [] { return Error(); }).is(ErrorCode::InvalidArgument));
        EXPECT_FALSE(cache.contains(kEntry));
        EXPECT_EQ(orx::testing::readFile(file), "precious");
        EXPECT_EQ(QDir(root()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), before);
        ASSERT_TRUE(QDir(root()).removeRecursively());
    }
    ASSERT_TRUE(QDir().mkpath(root() + u"/content"_qs));
    ASSERT_TRUE(QDir().mkpath(root() + u"/state"_qs));
    ASSERT_TRUE(orx::testing::writeFile(root() + u"/other"_qs, "precious"));
    EXPECT_FALSE(fill(kEntry, "content").hasError());
    EXPECT_EQ(orx::testing::readFile(root() + u"/other"_qs), "precious");
}

TEST_F(CachePlacesTest, ACacheIsKnownByItsMarkAloneOrByItsRecords) {
    ASSERT_FALSE(fill(kEntry, "content").hasError());
    ASSERT_TRUE(QFile::remove(root() + u"/state/is-a-cache"_qs));
    EXPECT_TRUE(ResourceCache(root()).contains(kEntry));
    for (const char* const name : {"cache.sqlite", "cache.sqlite-wal", "cache.sqlite-shm", "locks"})
        QFile::remove(root() + u"/state/"_qs + QString::fromLatin1(name));
    ResourceCache other(root());
    EXPECT_FALSE(other.contains(kEntry));
    EXPECT_TRUE(other.prune());
    EXPECT_FALSE(QFileInfo::exists(placeOf(kEntry)));
}

TEST_F(CachePlacesTest, PoliciesBelongToEntries) {
    EXPECT_EQ(*cache.cleanupPolicy(kEntry), ResourceCleanupPolicy::Automatic);
    EXPECT_TRUE(cache.setCleanupPolicy(kEntry, ResourceCleanupPolicy::Keep).is(ErrorCode::NotFound));
    ASSERT_FALSE(fill(kEntry, "content").hasError());
    EXPECT_FALSE(cache.setCleanupPolicy(kEntry, ResourceCleanupPolicy::Keep).hasError());
    EXPECT_EQ(*cache.cleanupPolicy(kEntry), ResourceCleanupPolicy::Keep);
    ASSERT_FALSE(fill(kEntry, "new", true).hasError());
    EXPECT_EQ(*cache.cleanupPolicy(kEntry), ResourceCleanupPolicy::Keep);
}
