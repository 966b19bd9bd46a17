#include "Exchange.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <sys/socket.h>

#include <atomic>
#include <csignal>

using namespace orx;
using namespace orx::testing;
using namespace std::chrono_literals;
using Method = NetworkRequest::Method;
using Request = LoopbackConnection::Request;

namespace {

const auto* const environment = ::testing::AddGlobalTestEnvironment(new WithoutProxies);

struct Failure {
    int code = 0;
    QString text;
};

Failure failureOf(const NetworkRequest& request) {
    CurlTransport transport;
    const NetworkReply reply = exchange(transport, request);
    return {networkCode(reply.error), reply.error.errorMessage()};
}

//! What comes of a server that sends \a bytes after the request and closes.
Failure failureAfter(const std::string& bytes) {
    const LoopbackServer server([&](LoopbackConnection& connection) {
        connection.readRequest();
        connection.send(bytes);
    });
    Failure failure = failureOf(requestTo(server));
    const QString peer = QStringLiteral("127.0.0.1:%1").arg(server.port());
    EXPECT_TRUE(failure.text.contains(peer)) << qPrintable(failure.text);
    return failure;
}

TEST(CurlTransportFailures, NamesAnAddressWhereNobodyAnswers) {
    const Socket nobody = Socket::reserved();
    const std::uint16_t port = nobody.port();
    NetworkRequest request;
    request.url = QUrl(QStringLiteral("http://127.0.0.1:%1/").arg(port));
    const Failure failure = failureOf(request);
    EXPECT_EQ(failure.code, int(NetworkErrorCode::ConnectionFailed));
    EXPECT_TRUE(failure.text.startsWith(QStringLiteral("Nobody answers at 127.0.0.1:%1 (").arg(port)))
        << qPrintable(failure.text);
    EXPECT_TRUE(failure.text.contains(QStringLiteral("whether the server runs")));
}

TEST(CurlTransportFailures, NamesAnUnknownHost) {
    // Too long for the name service: known to be no name without asking anybody.
    const QString host = (QString(60, u'x') + u'.').repeated(5) + QStringLiteral("invalid");
    NetworkRequest request;
    request.url = QUrl(QStringLiteral("https://%1/").arg(host));
    ASSERT_EQ(request.url.host(), host);
    const Failure failure = failureOf(request);
    EXPECT_EQ(failure.code, int(NetworkErrorCode::ConnectionFailed));
    EXPECT_TRUE(failure.text.startsWith(QStringLiteral("There is no known address for %1:443 (").arg(host)))
        << qPrintable(failure.text);
}

TEST(CurlTransportFailures, RefusesWhatIsNoAddressOfAServer) {
    for (const char* url :
         {"", "ftp://host/", "file:///etc/passwd", "host:80", "http://", "http://ho st/", "/path"}) {
        NetworkRequest request;
        request.url = QUrl(QString::fromLatin1(url));
        EXPECT_EQ(failureOf(request).code, int(NetworkErrorCode::InvalidRequest)) << url;
    }
}

TEST(CurlTransportFailures, RefusesHeadersThatWouldSplitTheRequestAndDoesNotRepeatTheirValues) {
    const LoopbackServer server(LoopbackServer::answering(
        [](LoopbackConnection& connection, const Request&) { connection.reply(200, ""); }));
    const QList<HttpHeader> bad{
        {"X", "secret\r\nInjected: 1"}, {"X\n", "secret"}, {"X", QByteArray("secret\0", 7)}, {"", "secret"}};
    for (const HttpHeader& header : bad) {
        NetworkRequest request = requestTo(server);
        request.headers = {header};
        const Failure failure = failureOf(request);
        EXPECT_EQ(failure.code, int(NetworkErrorCode::InvalidRequest));
        EXPECT_FALSE(failure.text.contains(QStringLiteral("secret"))) << qPrintable(failure.text);
    }
    EXPECT_EQ(server.acceptedConnections(), 0);
}

TEST(CurlTransportFailures, SaysThatAConnectionEndedTooEarly) {
    const int lost = int(NetworkErrorCode::ConnectionLost);
    EXPECT_EQ(failureAfter("").code, lost);
    EXPECT_EQ(failureAfter("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nonly this").code, lost);
    EXPECT_EQ(failureAfter("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n64\r\nonly this").code,
              lost);
    EXPECT_EQ(failureAfter("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nonly\r\n").code, lost);
    EXPECT_TRUE(failureAfter("").text.contains(QStringLiteral("ended before the reply was complete")));
}

TEST(CurlTransportFailures, SaysThatWhatCameIsNoHttp) {
    const int invalid = int(NetworkErrorCode::InvalidReply);
    EXPECT_EQ(failureAfter("220 mail.example ESMTP ready\r\n").code, invalid);
    EXPECT_EQ(failureAfter(std::string(5000, '\xfe')).code, invalid);
    EXPECT_EQ(failureAfter("HTTP/1.1 banana\r\n\r\n").code, invalid);
    EXPECT_EQ(
        failureAfter("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nabc\r\n0\r\n\r\n").code,
        invalid);
    EXPECT_EQ(failureAfter("HTTP/1.1 200 OK\r\nContent-Length: -7\r\n\r\n").code, invalid);
    EXPECT_TRUE(failureAfter("nonsense\r\n\r\n").text.contains(QStringLiteral("is not a valid HTTP reply")));
}

TEST(CurlTransportFailures, RefusesHeadersWithoutEnd) {
    const LoopbackServer server([](LoopbackConnection& connection) {
        connection.readRequest();
        connection.send("HTTP/1.1 200 OK\r\n");
        while (connection.send("X-More: " + std::string(1000, 'x') + "\r\n")) {
        }
    });
    const Failure failure = failureOf(requestTo(server));
    EXPECT_EQ(failure.code, int(NetworkErrorCode::InvalidReply));
    EXPECT_TRUE(failure.text.contains(QStringLiteral("its headers are too large")))
        << qPrintable(failure.text);
}

TEST(CurlTransportFailures, SaysThatAConnectionWasResetInTheMiddleOfABody) {
    Gate received;
    const LoopbackServer server([&](LoopbackConnection& connection) {
        connection.readRequest();
        connection.send("HTTP/1.1 200 OK\r\nContent-Length: 1000000\r\n\r\nsome bytes");
        received.wait();
        connection.reset();
    });
    struct Sink : BodySink {
        Gate& received;
        explicit Sink(Gate& gate) : received(gate) {}
        Verdict begin(int, const QList<HttpHeader>&) override { return Verdict::Taken; }
        Verdict take(const char*, qint64) override {
            received.open();
            return Verdict::Taken;
        }
    };
    NetworkRequest request = requestTo(server);
    request.sink = std::make_shared<Sink>(received);
    EXPECT_EQ(failureOf(request).code, int(NetworkErrorCode::ConnectionLost));
}

TEST(CurlTransportFailures, NeverSendsAnUnsafeRequestTwiceOnAKeptConnectionThatEndsWithoutAnAnswer) {
    std::atomic<int> posts = 0;
    const LoopbackServer server([&](LoopbackConnection& connection) {
        while (const auto request = connection.readRequest()) {
            if (request->method() == "POST") {
                ++posts;
                return;
            }
            connection.reply(200, "");
        }
    });
    CurlTransport transport;
    NetworkRequest post = requestTo(server, "/", Method::Post);
    post.body = std::make_shared<const QByteArray>("make one");
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(exchange(transport, requestTo(server)).status, 200);
        EXPECT_EQ(networkCode(exchange(transport, post).error), int(NetworkErrorCode::ConnectionLost));
        EXPECT_EQ(posts, i);
    }
}

TEST(CurlTransportFailures, FailsWhenTheServerStaysSilent) {
    Gate over;
    const LoopbackServer server([&](LoopbackConnection& connection) {
        connection.readRequest();
        over.wait();
    });
    NetworkRequest request = requestTo(server);
    request.silenceTimeout = 20ms;
    const Failure failure = failureOf(request);
    over.open();
    EXPECT_EQ(failure.code, int(NetworkErrorCode::TimedOut));
    EXPECT_TRUE(failure.text.startsWith(
        QStringLiteral("Nothing came from 127.0.0.1:%1 for 0.02 s.").arg(server.port())))
        << qPrintable(failure.text);
}

TEST(CurlTransportFailures, FailsWhenTheServerTakesNoMoreOfAnUpload) {
    // Nobody accepts the connection: the kernel takes what fits into a small buffer, at once.
    const Socket listener = Socket::listening();
    const int small = 16 * 1024;
    ASSERT_EQ(::setsockopt(listener.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small), 0);
    NetworkRequest request;
    request.url = QUrl(QStringLiteral("http://127.0.0.1:%1/").arg(listener.port()));
    request.method = Method::Put;
    request.body = std::make_shared<const QByteArray>(64 * 1024 * 1024, 'x');
    qint64 sent = 0;
    request.onBytesSent = [&](qint64 sum) { sent = sum; };
    request.silenceTimeout = 500ms;
    const Failure failure = failureOf(request);
    EXPECT_EQ(failure.code, int(NetworkErrorCode::TimedOut));
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, 64 * 1024 * 1024);
}

TEST(CurlTransportFailures, FailsWhenTheServerFallsSilentInTheMiddleOfABodyAndGoesOnWithTheOthers) {
    Gate over;
    const LoopbackServer server([&](LoopbackConnection& connection) {
        const auto request = connection.readRequest();
        if (request->target() == "/good") {
            connection.reply(200, "good");
            return;
        }
        connection.send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nsome");
        over.wait();
    });
    CurlTransport transport({.maxRequestsInFlight = 1, .caFile = {}});
    NetworkRequest silent = requestTo(server, "/silent");
    silent.silenceTimeout = 20ms;
    Exchange first(transport, silent);
    Exchange second(transport, requestTo(server, "/good"));
    EXPECT_EQ(networkCode(first.wait().error), int(NetworkErrorCode::TimedOut));
    EXPECT_EQ(second.wait().body, "good");
    over.open();
}

TEST(CurlTransportFailures, FailsWhenTheWholeRequestTakesTooLong) {
    std::atomic<bool> over = false;
    const LoopbackServer server([&](LoopbackConnection& connection) {
        connection.readRequest();
        connection.reply(200, "connected");
        connection.readRequest();
        connection.send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
        while (!over && connection.send("1\r\nx\r\n")) {
        }
    });
    CurlTransport transport;
    NetworkRequest request = requestTo(server);
    EXPECT_EQ(exchange(transport, request).body, "connected");
    // On a connection that is there, so that the time is never that of connecting.
    request.totalTimeout = 50ms;
    const Error error = exchange(transport, request).error;
    over = true;
    EXPECT_EQ(networkCode(error), int(NetworkErrorCode::TimedOut));
    EXPECT_TRUE(error.errorMessage().contains(QStringLiteral("did not complete its reply within 0.05 s")))
        << qPrintable(error.errorMessage());
}

TEST(CurlTransportFailures, FailsWhenNoConnectionComesAboutInTime) {
    // A listener whose queue is full answers no further connection.
    const Socket listener = Socket::listening();
    ASSERT_EQ(::listen(listener.fd(), 0), 0);
    const Socket waiting = Socket::connected("127.0.0.1", listener.port());
    NetworkRequest request;
    request.url = QUrl(QStringLiteral("http://127.0.0.1:%1/").arg(listener.port()));
    request.connectTimeout = 30ms;
    const Failure failure = failureOf(request);
    EXPECT_EQ(failure.code, int(NetworkErrorCode::ConnectionFailed));
    EXPECT_TRUE(failure.text.startsWith(
        QStringLiteral("No connection to 127.0.0.1:%1 within 0.03 s.").arg(listener.port())))
        << qPrintable(failure.text);
}

TEST(CurlTransportFailures, NamesAServerThatSpeaksNoTls) {
    const LoopbackServer server([](LoopbackConnection& connection) {
        connection.send("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n");
        connection.waitForClient();
    });
    NetworkRequest request = requestTo(server);
    request.url.setScheme(QStringLiteral("https"));
    const Failure failure = failureOf(request);
    EXPECT_EQ(failure.code, int(NetworkErrorCode::TlsFailed));
    EXPECT_TRUE(failure.text.startsWith(
        QStringLiteral("No trusted encrypted connection to 127.0.0.1:%1 (").arg(server.port())))
        << qPrintable(failure.text);
}

//! OpenSSL's own socket writes raise it when the client has refused the certificate and gone; only for the
//! calling thread.
void blockBrokenPipeSignal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

//! A key with a certificate that it signed itself, for 127.0.0.1.
class SelfSigned {
public:
    SelfSigned() : m_key(EVP_RSA_gen(2048)), m_certificate(X509_new()) {
        ASN1_INTEGER_set(X509_get_serialNumber(m_certificate), 1);
        X509_gmtime_adj(X509_getm_notBefore(m_certificate), -3600);
        X509_gmtime_adj(X509_getm_notAfter(m_certificate), 3600);
        X509_set_version(m_certificate, 2);
        X509_set_pubkey(m_certificate, m_key);
        X509_NAME* name = X509_get_subject_name(m_certificate);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("test"),
                                   -1, -1, 0);
        X509_set_issuer_name(m_certificate, name);
        X509_EXTENSION* address = X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, "IP:127.0.0.1");
        X509_add_ext(m_certificate, address, -1);
        X509_EXTENSION_free(address);
        X509_sign(m_certificate, m_key, EVP_sha256());
        m_context = SSL_CTX_new(TLS_server_method());
        SSL_CTX_use_certificate(m_context, m_certificate);
        SSL_CTX_use_PrivateKey(m_context, m_key);
    }
    ~SelfSigned() {
        SSL_CTX_free(m_context);
        X509_free(m_certificate);
        EVP_PKEY_free(m_key);
    }
    Q_DISABLE_COPY_MOVE(SelfSigned)

    QByteArray pem() const {
        BIO* out = BIO_new(BIO_s_mem());
        PEM_write_bio_X509(out, m_certificate);
        char* data = nullptr;
        const long size = BIO_get_mem_data(out, &data);
        QByteArray text(data, qsizetype(size));
        BIO_free(out);
        return text;
    }

    //! Answers one request on each connection.
    LoopbackServer::Script answering(const std::string& body) {
        return [this, body](LoopbackConnection& connection) {
            blockBrokenPipeSignal();
            SSL* tls = SSL_new(m_context);
            SSL_set_fd(tls, connection.socket().fd());
            std::string head;
            char byte = 0;
            if (SSL_accept(tls) == 1) {
                while (head.find("\r\n\r\n") == std::string::npos && SSL_read(tls, &byte, 1) == 1)
                    head += byte;
                const std::string reply =
                    "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) +
                    "\r\n\r\n" + body;
                SSL_write(tls, reply.data(), int(reply.size()));
                SSL_shutdown(tls);
            }
            SSL_free(tls);
        };
    }

private:
    EVP_PKEY* m_key;
    X509* m_certificate;
    SSL_CTX* m_context = nullptr;
};

TEST(CurlTransportTls, RefusesAnUnknownCertificateAndTakesItOnceItIsAddedToTheSystemsOnes) {
    SelfSigned identity;
    const LoopbackServer server(identity.answering("encrypted"));
    NetworkRequest request = requestTo(server);
    request.url.setScheme(QStringLiteral("https"));
    const Failure failure = failureOf(request);
    EXPECT_EQ(failure.code, int(NetworkErrorCode::TlsFailed));
    EXPECT_TRUE(failure.text.contains(QStringLiteral("certificate"))) << qPrintable(failure.text);

    const QTemporaryDir dir;
    QFile file(dir.filePath(QStringLiteral("ca.pem")));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(identity.pem()) > 0);
    file.close();
    CurlTransport trusting({.maxRequestsInFlight = 4, .caFile = file.fileName()});
    for (int i = 0; i < 3; ++i) {
        const NetworkReply reply = exchange(trusting, request);
        EXPECT_EQ(reply.body, "encrypted") << qPrintable(reply.error.errorMessage());
    }
    request.url.setHost(QStringLiteral("localhost"));
    EXPECT_EQ(networkCode(exchange(trusting, request).error), int(NetworkErrorCode::TlsFailed))
        << "the name is not in the certificate";
}

TEST(CurlTransportTls, NamesACertificateFileThatCannotBeUsed) {
    const QTemporaryDir dir;
    QFile file(dir.filePath(QStringLiteral("empty.pem")));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    NetworkRequest request;
    request.url = QUrl(QStringLiteral("http://127.0.0.1:1/"));
    for (const QString& path : {file.fileName(), dir.filePath(QStringLiteral("missing.pem"))}) {
        CurlTransport transport({.maxRequestsInFlight = 4, .caFile = path});
        const Error error = exchange(transport, request).error;
        EXPECT_EQ(networkCode(error), int(NetworkErrorCode::TlsFailed));
        EXPECT_TRUE(error.errorMessage().contains(path)) << qPrintable(error.errorMessage());
    }
}

} // namespace
