// Argon2id hashes of passwords.
#pragma once

#include <cstdint>
#include <string>

namespace halvane::server {

struct PasswordCost {
    std::uint32_t memoryKib = 19 * 1024;
    std::uint32_t passes = 2;
};

// The encoded hash (algorithm, cost, salt and digest). Throws ApiError when the memory is not to be had.
std::string hashPassword(const std::string& password, const PasswordCost& cost);
// Takes as long as the hash was made to cost.
bool passwordFits(const std::string& encodedHash, const std::string& password);

} // namespace halvane::server
