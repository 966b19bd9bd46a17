#include "ExtraTrust.h"

#include "NetworkError.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <QFile>

namespace orx {

ExtraTrust::ExtraTrust(const QString& file) {
    if (!file.isEmpty())
        load(file);
}

ExtraTrust::~ExtraTrust() {
    for (X509* certificate : m_certificates)
        X509_free(certificate);
}

void ExtraTrust::load(const QString& file) {
    QFile input(file);
    if (!input.open(QIODevice::ReadOnly)) {
        m_error = Error(
            ErrorDomain::Network, int(NetworkErrorCode::TlsFailed),
            QStringLiteral("The certificate file \"%1\" cannot be read (%2). Give the path of a PEM file.")
                .arg(file, input.errorString()));
        return;
    }
    const QByteArray pem = input.readAll();
    BIO* source = BIO_new_mem_buf(pem.constData(), int(pem.size()));
    while (X509* certificate = PEM_read_bio_X509(source, nullptr, nullptr, nullptr))
        m_certificates.push_back(certificate);
    BIO_free(source);
    // The end of the file leaves an error in the thread's queue.
    ERR_clear_error();
    if (m_certificates.empty())
        m_error = Error(
            ErrorDomain::Network, int(NetworkErrorCode::TlsFailed),
            QStringLiteral("The file \"%1\" holds no certificate. Give the path of a PEM file.").arg(file));
}

CURLcode ExtraTrust::applyTo(CURL* handle) {
    if (m_certificates.empty())
        return CURLE_OK;
    if (const CURLcode code = curl_easy_setopt(handle, CURLOPT_SSL_CTX_DATA, this); code != CURLE_OK)
        return code;
    return curl_easy_setopt(handle, CURLOPT_SSL_CTX_FUNCTION, &ExtraTrust::addTo);
}

CURLcode ExtraTrust::addTo(CURL*, void* sslContext, void* self) {
    X509_STORE* store = SSL_CTX_get_cert_store(static_cast<SSL_CTX*>(sslContext));
    // The store is shared by the connections of a thread; adding what it has is no error.
    for (X509* certificate : static_cast<ExtraTrust*>(self)->m_certificates) {
        if (X509_STORE_add_cert(store, certificate) != 1)
            return CURLE_SSL_CACERT_BADFILE;
    }
    return CURLE_OK;
}

} // namespace orx
