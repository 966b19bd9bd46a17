#include "auth/passwords.h"

#include "core/errors.h"
#include "core/random.h"

#include <argon2.h>
#include <array>

namespace halvane::server {

std::string hashPassword(const std::string& password, const PasswordCost& cost) {
    constexpr std::uint32_t lanes = 1;
    constexpr std::size_t digestBytes = 32;
    const std::string salt = randomHex(16);
    std::array<char, 256> encoded{};
    const int result =
        argon2id_hash_encoded(cost.passes, cost.memoryKib, lanes, password.data(), password.size(),
                              salt.data(), salt.size(), digestBytes, encoded.data(), encoded.size());
    if (result != ARGON2_OK)
        throw ApiError(ErrorCode::Internal,
                       std::string("The password cannot be hashed: ") + argon2_error_message(result) + ".");
    return encoded.data();
}

bool passwordFits(const std::string& encodedHash, const std::string& password) {
    return argon2id_verify(encodedHash.c_str(), password.data(), password.size()) == ARGON2_OK;
}

} // namespace halvane::server
