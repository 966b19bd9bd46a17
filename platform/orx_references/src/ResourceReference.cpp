#include "ResourceReference.h"

#include <QFileInfo>

namespace orx {

ResourceReference::~ResourceReference() = default;

LocalFileResourceReference::LocalFileResourceReference(const QString& path) : m_path(path) {}

QString LocalFileResourceReference::name() const {
    return QFileInfo(m_path).fileName();
}

} // namespace orx
