#pragma once

#include <Error.h>

#include <curl/curl.h>

#include <memory>
#include <vector>

struct x509_st;

namespace orx {

//! Certificates of one PEM file that count beside the system's.
class ExtraTrust {
public:
    //! Empty \a file: none.
    explicit ExtraTrust(const QString& file);
    ~ExtraTrust();
    Q_DISABLE_COPY_MOVE(ExtraTrust)

    //! Why the file could not be used.
    const Error& error() const { return m_error; }
    //! Makes the connections of \a handle trust them; this object must outlive its use.
    CURLcode applyTo(CURL* handle);

private:
    void load(const QString& file);
    static CURLcode addTo(CURL*, void* sslContext, void* self);

    std::vector<x509_st*> m_certificates;
    Error m_error;
};

} // namespace orx
