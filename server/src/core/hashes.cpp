#include "core/hashes.h"

#include <openssl/evp.h>
#include <stdexcept>
#include <xxhash.h>

namespace halvane::server {

struct Sha256::Private {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    ~Private() { EVP_MD_CTX_free(context); }
};

Sha256::Sha256() : d(std::make_unique<Private>()) {
    restart();
}

Sha256::~Sha256() = default;
Sha256::Sha256(Sha256&&) noexcept = default;
Sha256& Sha256::operator=(Sha256&&) noexcept = default;

void Sha256::restart() {
    if (d->context == nullptr || EVP_DigestInit_ex(d->context, EVP_sha256(), nullptr) != 1)
        throw std::runtime_error("OpenSSL could not begin a SHA-256.");
}

void Sha256::update(Bytes data) {
    if (EVP_DigestUpdate(d->context, data.data(), data.size()) != 1)
        throw std::runtime_error("OpenSSL could not go on with a SHA-256.");
}

Sha256Digest Sha256::finish() {
    Sha256Digest digest{};
    if (EVP_DigestFinal_ex(d->context, digest.data(), nullptr) != 1)
        throw std::runtime_error("OpenSSL could not finish a SHA-256.");
    restart();
    return digest;
}

Sha256Digest Sha256::of(std::string_view text) {
    Sha256 hash;
    hash.update(bytesOf(text));
    return hash.finish();
}

struct Xxh3::Private {
    XXH3_state_t* state = XXH3_createState();
    ~Private() { XXH3_freeState(state); }
};

Xxh3::Xxh3() : d(std::make_unique<Private>()) {
    if (d->state == nullptr || XXH3_128bits_reset(d->state) != XXH_OK)
        throw std::bad_alloc();
}

Xxh3::~Xxh3() = default;
Xxh3::Xxh3(Xxh3&&) noexcept = default;
Xxh3& Xxh3::operator=(Xxh3&&) noexcept = default;

void Xxh3::update(Bytes data) {
    XXH3_128bits_update(d->state, data.data(), data.size());
}

Xxh3Digest Xxh3::digest() const {
    XXH128_canonical_t canonical;
    XXH128_canonicalFromHash(&canonical, XXH3_128bits_digest(d->state));
    Xxh3Digest digest{};
    std::copy(std::begin(canonical.digest), std::end(canonical.digest), digest.begin());
    return digest;
}

Xxh3Digest Xxh3::of(std::string_view text) {
    Xxh3 hash;
    hash.update(bytesOf(text));
    return hash.digest();
}

std::string hexText(std::span<const unsigned char> digest) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(digest.size() * 2);
    for (const unsigned char byte : digest) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

template <typename Digest>
std::optional<Digest> parseHex(std::string_view text) {
    Digest digest{};
    if (text.size() != digest.size() * 2)
        return std::nullopt;
    for (std::size_t i = 0; i < digest.size(); ++i) {
        const int high = hexValue(text[2 * i]);
        const int low = hexValue(text[2 * i + 1]);
        if (high < 0 || low < 0)
            return std::nullopt;
        digest[i] = static_cast<unsigned char>(high * 16 + low);
    }
    return digest;
}

} // namespace

std::optional<Sha256Digest> parseSha256(std::string_view text) {
    return parseHex<Sha256Digest>(text);
}

std::optional<Xxh3Digest> parseXxh3(std::string_view text) {
    return parseHex<Xxh3Digest>(text);
}

} // namespace halvane::server
