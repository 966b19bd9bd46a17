#include "core/random.h"

#include "core/hashes.h"

#include <openssl/rand.h>
#include <stdexcept>
#include <vector>

namespace halvane::server {

std::string randomHex(std::size_t bytes) {
    std::vector<unsigned char> data(bytes);
    if (RAND_bytes(data.data(), static_cast<int>(data.size())) != 1)
        throw std::runtime_error("OpenSSL has no random bytes to give.");
    return hexText(data);
}

} // namespace halvane::server
