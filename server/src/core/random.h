// Unpredictable bytes for tokens, salts and file names.
#pragma once

#include <cstddef>
#include <string>

namespace halvane::server {

// `bytes` random bytes of OpenSSL as lower-case hexadecimal text. Throws std::runtime_error when there are
// none to be had.
std::string randomHex(std::size_t bytes);

} // namespace halvane::server
