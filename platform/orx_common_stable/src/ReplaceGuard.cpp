#include "ReplaceGuard.h"

#include <QObject>
#include <QVariant>

#include <utility>

Q_DECLARE_METATYPE(orx::ReplaceGuard::MayReplace)

namespace orx {

namespace {

constexpr auto propertyName = "_orx_replaceGuard";

thread_local ReplaceGuard::Scope* innermost = nullptr;

} // namespace

ReplaceGuard::Scope::Scope(MayReplace mayReplace)
    : m_mayReplace(std::move(mayReplace)), m_outer(std::exchange(innermost, this)) {}

ReplaceGuard::Scope::~Scope() {
    innermost = m_outer;
}

bool ReplaceGuard::mayReplace(const QString& path) {
    return !innermost || !innermost->m_mayReplace || innermost->m_mayReplace(path);
}

void ReplaceGuard::attach(QObject& task, const MayReplace& mayReplace) {
    task.setProperty(propertyName, QVariant::fromValue(mayReplace));
}

ReplaceGuard::MayReplace ReplaceGuard::of(const QObject& task) {
    // Most objects have no such properties, and that is told faster than which they are.
    if (task.dynamicPropertyNames().isEmpty())
        return {};
    return task.property(propertyName).value<MayReplace>();
}

} // namespace orx
