#include "BackgroundWork.h"

#include <utility>

namespace orx {

namespace {

thread_local BackgroundWork::Scope* innermost = nullptr;

} // namespace

BackgroundWork::~BackgroundWork() = default;

std::shared_ptr<BackgroundWork> BackgroundWork::begin() {
    return innermost && innermost->m_begin ? innermost->m_begin() : nullptr;
}

BackgroundWork::Scope::Scope(Begin begin)
    : m_begin(std::move(begin)), m_outer(std::exchange(innermost, this)) {}

BackgroundWork::Scope::~Scope() {
    innermost = m_outer;
}

} // namespace orx
