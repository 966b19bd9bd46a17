#include "PathImpl.h"

#include <utility>

namespace orx {

PathBase::PathBase(QString text, PathType type) : m_text(std::move(text)), m_type(type) {}

QString PathBase::child(const QString& relative) const {
    return QDir(m_text).filePath(relative);
}

} // namespace orx
