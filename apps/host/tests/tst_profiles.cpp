#include <Profiles.h>
#include <Session.h>
#include <TokenStore.h>

#include <HalvaneConnection.h>

#include <gtest/gtest.h>

#include <QFileInfo>
#include <QTemporaryDir>

using namespace halvane::host;
using orx::ErrorCode;

namespace {

class ProfilesTest : public ::testing::Test {
protected:
    void SetUp() override {
        qputenv("HALVANE_CONFIG_DIR", QFile::encodeName(m_dir.filePath(QStringLiteral("config"))));
        qunsetenv("HALVANE_PROFILE");
    }
    void TearDown() override {
        qunsetenv("HALVANE_CONFIG_DIR");
        qunsetenv("HALVANE_PROFILE");
    }

    static Profile profile(const QString& name) {
        return {name, QUrl(QStringLiteral("https://%1.example.org").arg(name)),
                QStringLiteral("anna \u00e9")};
    }

    QTemporaryDir m_dir;
};

TEST_F(ProfilesTest, NobodyHasLoggedInYet) {
    EXPECT_TRUE(Profiles::currentName({}).error().is(ErrorCode::NotAuthenticated));
    EXPECT_TRUE(Profiles::load(QStringLiteral("lab")).error().is(ErrorCode::NotAuthenticated));
    EXPECT_TRUE(Session::open({}).error().is(ErrorCode::NotAuthenticated));
    EXPECT_EQ(Profiles::names(), QStringList());
}

TEST_F(ProfilesTest, TheLastLoginIsTheCurrentOne) {
    ASSERT_FALSE(Profiles::save(profile(QStringLiteral("lab"))).hasError());
    ASSERT_FALSE(Profiles::save(profile(QStringLiteral("archive"))).hasError());
    EXPECT_EQ(Profiles::names(), (QStringList{QStringLiteral("archive"), QStringLiteral("lab")}));
    EXPECT_EQ(Profiles::currentName({}).value(), QStringLiteral("archive"));
    qputenv("HALVANE_PROFILE", "lab");
    EXPECT_EQ(Profiles::currentName({}).value(), QStringLiteral("lab"));
    EXPECT_EQ(Profiles::currentName(QStringLiteral("archive")).value(), QStringLiteral("archive"));
    const auto loaded = Profiles::load(QStringLiteral("lab"));
    ASSERT_FALSE(loaded.hasError());
    EXPECT_EQ(loaded->url, profile(QStringLiteral("lab")).url);
    EXPECT_EQ(loaded->userName, QStringLiteral("anna \u00e9"));
}

TEST_F(ProfilesTest, NamesStayInsideTheirDirectory) {
    for (const char* name : {"", ".", "..", "../x", "a/b", ".hidden", "a b", "a\nb"})
        EXPECT_TRUE(Profiles::checkName(QString::fromUtf8(name)).is(ErrorCode::InvalidArgument)) << name;
    EXPECT_TRUE(Profiles::checkName(QString(65, u'x')).hasError());
    for (const char* name : {"lab", "127.0.0.1-8080", "A_b-c.d"})
        EXPECT_FALSE(Profiles::checkName(QString::fromUtf8(name)).hasError()) << name;
    qputenv("HALVANE_PROFILE", "../x");
    EXPECT_TRUE(Profiles::currentName({}).error().is(ErrorCode::InvalidArgument));
}

TEST_F(ProfilesTest, ALoginWithoutANameIsCalledAfterItsServer) {
    const auto name = [](const char* url) {
        return Profiles::nameForLogin({}, QUrl(QString::fromUtf8(url))).value();
    };
    EXPECT_EQ(name("https://halvane.example.org"), QStringLiteral("halvane.example.org"));
    EXPECT_EQ(name("http://127.0.0.1:8080"), QStringLiteral("127.0.0.1-8080"));
    EXPECT_EQ(name("http://[::1]:8080"), QStringLiteral("-1-8080"));
    EXPECT_EQ(Profiles::nameForLogin(QStringLiteral("lab"), QUrl()).value(), QStringLiteral("lab"));
}

TEST_F(ProfilesTest, AddressesAreChecked) {
    const auto url = [](const char* text) { return Profiles::parseServerUrl(QString::fromUtf8(text)); };
    EXPECT_EQ(url("https://host/").value(), QUrl(QStringLiteral("https://host")));
    EXPECT_EQ(url("http://host:81/base//").value(), QUrl(QStringLiteral("http://host:81/base")));
    for (const char* text : {"", "host", "host:80", "ftp://host", "http://", "http:///x", "http://u:p@host",
                             "http://host?q", "http://host#f", "http://ho st", "http://host:x"})
        EXPECT_TRUE(url(text).error().is(ErrorCode::InvalidArgument)) << text;
}

TEST_F(ProfilesTest, TokensAreForTheirOwnerOnly) {
    const QString name = QStringLiteral("lab");
    EXPECT_TRUE(TokenStore::load(name).error().is(ErrorCode::NotAuthenticated));
    ASSERT_FALSE(TokenStore::save(name, "abc123").hasError());
    EXPECT_EQ(TokenStore::load(name).value(), "abc123");
    const QFileInfo file(TokenStore::filePath(name));
    EXPECT_EQ(file.permissions() &
                  (QFile::ReadGroup | QFile::WriteGroup | QFile::ReadOther | QFile::WriteOther),
              0);
    ASSERT_FALSE(TokenStore::remove(name).hasError());
    EXPECT_FALSE(QFileInfo::exists(file.filePath()));
    EXPECT_FALSE(TokenStore::remove(name).hasError());
}

TEST_F(ProfilesTest, OpeningASessionSetsTheConnection) {
    ASSERT_FALSE(Profiles::save(profile(QStringLiteral("lab"))).hasError());
    EXPECT_TRUE(Session::open({}).error().is(ErrorCode::NotAuthenticated));
    ASSERT_FALSE(TokenStore::save(QStringLiteral("lab"), "abc123").hasError());
    ASSERT_FALSE(Session::open({}).hasError());
    const auto& connection = orx::HalvaneConnection::instance();
    EXPECT_EQ(connection.token(), "abc123");
    EXPECT_EQ(connection.userName(), QStringLiteral("anna \u00e9"));
    EXPECT_EQ(connection.apiUrl(), QUrl(QStringLiteral("https://lab.example.org/api/v1")));
}

} // namespace
