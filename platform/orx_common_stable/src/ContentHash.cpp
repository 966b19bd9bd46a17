#include "ContentHash.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <xxhash.h>

#include <algorithm>
#include <array>
#include <memory>
#include <new>

namespace orx {

// OpenSSL ends in the reverse order of its beginning: begun here, before main, it outlives the threads that
// hash until the process ends.
[[maybe_unused]] static const int cryptoBegun = OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CONFIG, nullptr);

// Only a lack of memory makes these calls of OpenSSL fail, which is no state to go on in.
static void require(bool done) {
    if (!done)
        throw std::bad_alloc();
}

ContentHash::ContentHash() : m_context(EVP_MD_CTX_new()) {
    require(m_context != nullptr);
    reset();
}

ContentHash::~ContentHash() {
    EVP_MD_CTX_free(m_context);
}

void ContentHash::reset() {
    require(EVP_DigestInit_ex(m_context, EVP_sha256(), nullptr) == 1);
}

void ContentHash::add(const char* data, qint64 size) {
    require(EVP_DigestUpdate(m_context, data, size_t(size)) == 1);
}

QByteArray ContentHash::hexDigest() const {
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> copy(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    require(copy && EVP_MD_CTX_copy_ex(copy.get(), m_context) == 1 &&
            EVP_DigestFinal_ex(copy.get(), digest.data(), &length) == 1);
    return QByteArray(reinterpret_cast<const char*>(digest.data()), int(length)).toHex();
}

bool ContentHash::isHexDigest(const QByteArray& text) {
    const auto isHex = [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); };
    return text.size() == 64 && std::all_of(text.begin(), text.end(), isHex);
}

ChunkHash::ChunkHash() : m_state(XXH3_createState()) {
    require(m_state != nullptr);
    reset();
}

ChunkHash::~ChunkHash() {
    XXH3_freeState(m_state);
}

void ChunkHash::reset() {
    XXH3_128bits_reset(m_state);
}

void ChunkHash::add(const char* data, qint64 size) {
    XXH3_128bits_update(m_state, data, size_t(size));
}

QByteArray ChunkHash::hexDigest() const {
    XXH128_canonical_t canonical;
    XXH128_canonicalFromHash(&canonical, XXH3_128bits_digest(m_state));
    return QByteArray(reinterpret_cast<const char*>(canonical.digest), int(sizeof canonical.digest)).toHex();
}

QByteArray ChunkHash::of(const QByteArray& chunk) {
    ChunkHash hash;
    hash.add(chunk.constData(), chunk.size());
    return hash.hexDigest();
}

} // namespace orx
