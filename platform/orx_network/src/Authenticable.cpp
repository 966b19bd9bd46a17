#include "Authenticable.h"

namespace orx {

Authenticable::~Authenticable() = default;
Retriable::~Retriable() = default;

} // namespace orx
