// A server with a certificate that the system does not know, as a laboratory's own has.
#include "Client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QFile>

namespace orx::testing {
namespace {

using ::testing::HasSubstr;

class PrivateCertificate : public ::testing::Test {
protected:
    void SetUp() override {
        certificate("lab");
        certificate("other");
        server.setArguments({"--tls-cert", client.path("lab.pem"), "--tls-key", client.path("lab.key")});
        ASSERT_TRUE(server.start());
        url = server.url();
        url.setScheme("https");
    }

    void certificate(const QString& name) const {
        QProcess openssl;
        openssl.start("openssl", {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
                                  "/CN=" + name, "-addext", "subjectAltName=IP:127.0.0.1", "-keyout",
                                  client.path(name + ".key"), "-out", client.path(name + ".pem")});
        ASSERT_TRUE(openssl.waitForFinished(-1));
        ASSERT_EQ(openssl.exitCode(), 0) << openssl.readAllStandardError().constData();
    }

    Outcome login(const QStringList& options) const {
        const auto process = client.start(
            QStringList{"login", url.toString(), "--user", RealServer::AdminName, "--password-stdin"} +
            options);
        return Client::finish(*process, RealServer::AdminPassword);
    }

    RealServer server;
    Client client;
    QUrl url;
};

TEST_F(PrivateCertificate, IsRefusedUntilItIsGivenAndTheMessageTellsHow) {
    const Outcome refused = login({});
    EXPECT_EQ(refused.exitCode, 10);
    EXPECT_THAT(refused.err.toStdString(), HasSubstr("--ca-file"));
    EXPECT_EQ(login({"--ca-file", client.path("other.pem")}).exitCode, 10);
    EXPECT_EQ(client.run({"whoami"}).exitCode, 5) << "nothing of the failed logins is kept";
    EXPECT_EQ(login({"--ca-file", client.path("lab.pem")}).exitCode, 0);
}

TEST_F(PrivateCertificate, IsKeptWithTheLogin) {
    ASSERT_EQ(login({"--ca-file", client.path("lab.pem")}).exitCode, 0);
    ASSERT_TRUE(QFile::remove(client.path("lab.pem")));
    client.mustRun({"mkdir", "/raw"});
    const QByteArray content = "a run";
    client.makeFile("run.mzML", content);
    client.mustRun({"put", "run.mzML", "--to", "/raw", "--no-cache"});
    client.mustRun({"get", "/raw/run.mzML", "--to", "back.mzML", "--no-cache"});
    EXPECT_EQ(Client::contentOf(client.path("back.mzML")), content);
    // Logging in again, after the token has expired for instance, needs no file either.
    EXPECT_EQ(login({}).exitCode, 0);
    client.mustRun({"whoami"});
}

TEST_F(PrivateCertificate, IsForgottenWhenTheProfileGetsAnotherServer) {
    ASSERT_EQ(login({"--ca-file", client.path("lab.pem"), "--profile", "lab"}).exitCode, 0);
    RealServer plain;
    ASSERT_TRUE(plain.start());
    ASSERT_TRUE(
        client.login(plain.url(), RealServer::AdminName, RealServer::AdminPassword, {"--profile", "lab"}));
    EXPECT_EQ(login({"--profile", "lab"}).exitCode, 10);
}

TEST_F(PrivateCertificate, FilesThatAreNoneAreNamed) {
    const Outcome missing = login({"--ca-file", client.path("missing.pem")});
    EXPECT_EQ(missing.exitCode, 3);
    EXPECT_THAT(missing.err.toStdString(), HasSubstr("missing.pem"));
    const Outcome noCertificate = login({"--ca-file", client.path("lab.key")});
    EXPECT_NE(noCertificate.exitCode, 0);
    EXPECT_THAT(noCertificate.err.toStdString(), HasSubstr("holds no certificate"));
    EXPECT_EQ(login({"--ca-file", ""}).exitCode, 2);
}

} // namespace
} // namespace orx::testing
