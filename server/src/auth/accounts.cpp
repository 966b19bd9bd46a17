#include "auth/accounts.h"

#include "core/random.h"

namespace halvane::server {

namespace {

std::string tokenOf(std::string_view authorizationHeader) {
    constexpr std::string_view scheme = "Bearer ";
    if (!authorizationHeader.starts_with(scheme) || authorizationHeader.size() > 256)
        throw ApiError(ErrorCode::NotAuthenticated, "This call needs a token; log in first.");
    return std::string(authorizationHeader.substr(scheme.size()));
}

} // namespace

Accounts::Accounts(CatalogStore& catalog, Metrics& metrics, std::chrono::seconds tokenLifetime)
    : m_catalog(catalog)
    , m_metrics(metrics)
    , m_tokenLifetime(tokenLifetime)
    , m_hashOfNobody(hashPassword(randomHex(16), storedCost(catalog))) {}

PasswordCost Accounts::storedCost(CatalogStore& catalog) {
    return {static_cast<std::uint32_t>(std::stoul(catalog.setting("password_memory_kib"))),
            static_cast<std::uint32_t>(std::stoul(catalog.setting("password_passes")))};
}

LoginResult Accounts::login(const std::string& name, const std::string& password) {
    const auto wait = m_limiter.waitFor(name, LoginLimiter::Clock::now());
    if (wait.count() > 0)
        throw ApiError(ErrorCode::TooManyRequests,
                       "Too many failed logins of this name; try again in " + std::to_string(wait.count()) +
                           " s.",
                       429, static_cast<int>(wait.count()));
    const std::optional<Credentials> known = m_catalog.credentials(name);
    m_hashing.acquire();
    const bool fits = passwordFits(known ? known->passwordHash : m_hashOfNobody, password);
    m_hashing.release();
    if (!known || !fits) {
        ++m_metrics.loginFailures;
        m_limiter.countFailure(name, LoginLimiter::Clock::now());
        throw ApiError(ErrorCode::NotAuthenticated, "The user name or the password is wrong.");
    }
    LoginResult result{randomHex(32), m_catalog.caller(known->userId),
                       currentTime() + std::chrono::milliseconds(m_tokenLifetime).count()};
    m_catalog.addToken(Sha256::of(result.token), known->userId, result.expires);
    return result;
}

std::optional<Sha256Digest> Accounts::tokenHash(std::string_view authorizationHeader) {
    try {
        return Sha256::of(tokenOf(authorizationHeader));
    } catch (const ApiError&) {
        return std::nullopt;
    }
}

Caller Accounts::authenticate(std::string_view authorizationHeader) {
    auto caller = m_catalog.callerOfToken(Sha256::of(tokenOf(authorizationHeader)), currentTime());
    if (!caller)
        throw ApiError(ErrorCode::NotAuthenticated,
                       "The token is unknown, was revoked or has expired; log in again.");
    return std::move(*caller);
}

void Accounts::logout(std::string_view authorizationHeader) {
    (void)authenticate(authorizationHeader);
    m_catalog.revokeToken(Sha256::of(tokenOf(authorizationHeader)));
}

} // namespace halvane::server
