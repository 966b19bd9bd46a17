// The checksums of the protocol: SHA-256 of contents, XXH3-128 of chunks, and their texts.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace halvane::server {

using Bytes = std::span<const std::byte>;
using Sha256Digest = std::array<unsigned char, 32>;
using Xxh3Digest = std::array<unsigned char, 16>; // canonical (big-endian) order

inline Bytes bytesOf(std::string_view text) {
    return std::as_bytes(std::span(text.data(), text.size()));
}

// A running SHA-256. Not thread-safe. Throws std::runtime_error when OpenSSL refuses.
class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(Sha256&&) noexcept;
    Sha256& operator=(Sha256&&) noexcept;

    void update(Bytes data);
    // The digest; the object starts anew afterwards.
    Sha256Digest finish();
    void restart();

    static Sha256Digest of(std::string_view text);

private:
    struct Private;
    std::unique_ptr<Private> d;
};

// A running XXH3-128. Not thread-safe.
class Xxh3 {
public:
    Xxh3();
    ~Xxh3();
    Xxh3(Xxh3&&) noexcept;
    Xxh3& operator=(Xxh3&&) noexcept;

    void update(Bytes data);
    Xxh3Digest digest() const;

    static Xxh3Digest of(std::string_view text);

private:
    struct Private;
    std::unique_ptr<Private> d;
};

// Lower-case hexadecimal text of any digest.
std::string hexText(std::span<const unsigned char> digest);

// Reads exactly 2 x N lower-case hexadecimal digits.
std::optional<Sha256Digest> parseSha256(std::string_view text);
std::optional<Xxh3Digest> parseXxh3(std::string_view text);

} // namespace halvane::server
