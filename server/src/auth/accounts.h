// Logging in and out, and knowing who makes a call.
#pragma once

#include "auth/login_limiter.h"
#include "auth/passwords.h"
#include "core/metrics.h"
#include "store/catalog_store.h"

#include <semaphore>

namespace halvane::server {

struct LoginResult {
    std::string token;
    Caller caller;
    TimeMs expires = 0;
};

// Thread-safe.
class Accounts {
public:
    // A zero lifetime makes tokens that have expired already.
    Accounts(CatalogStore& catalog, Metrics& metrics, std::chrono::seconds tokenLifetime);

    // Throws NotAuthenticated, alike and after the same work for a wrong name and a wrong password;
    // TooManyRequests.
    LoginResult login(const std::string& name, const std::string& password);
    // What the catalogue knows the header's token by; nothing when it holds none.
    static std::optional<Sha256Digest> tokenHash(std::string_view authorizationHeader);
    // Throws NotAuthenticated.
    Caller authenticate(std::string_view authorizationHeader);
    void logout(std::string_view authorizationHeader);

    // What init stored; user add and the work for unknown names go by it.
    static PasswordCost storedCost(CatalogStore& catalog);

private:
    CatalogStore& m_catalog;
    Metrics& m_metrics;
    const std::chrono::seconds m_tokenLifetime;
    const std::string m_hashOfNobody;
    LoginLimiter m_limiter;
    std::counting_semaphore<2> m_hashing{2}; // each takes the memory that the cost says
};

} // namespace halvane::server
