#pragma once

#include "orx_network_export.h"

#include <QByteArray>

namespace orx {

//! Something whose requests carry credentials. The token never appears in logs, errors or traces.
class ORX_NETWORK_EXPORT Authenticable {
public:
    virtual ~Authenticable();
    QByteArray authenticationToken() const { return m_token; }
    void setAuthenticationToken(const QByteArray& token) { m_token = token; }

private:
    QByteArray m_token;
};

//! Something that tries again by itself.
class ORX_NETWORK_EXPORT Retriable {
public:
    virtual ~Retriable();
    int maxAttempts() const { return m_maxAttempts; }
    void setMaxAttempts(int attempts) { m_maxAttempts = attempts; }

private:
    int m_maxAttempts = 5;
};

} // namespace orx
