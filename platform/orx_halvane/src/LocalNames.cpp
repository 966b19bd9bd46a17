#include "LocalNames.h"

#include "DownloadNames.h"

namespace orx {

bool LocalNames::take(const QString& name) {
    if (m_taken.contains(name))
        return false;
    m_taken.insert(name);
    return true;
}

QString LocalNames::takeFree(const QString& name, Kind kind, int id) {
    const bool isFile = kind == Kind::File;
    const QString item = (isFile ? QStringLiteral(" (file %1") : QStringLiteral(" (folder %1")).arg(id);
    for (int copy = 1;; ++copy) {
        const QString mark = item + (copy == 1 ? QString() : QStringLiteral(", %1").arg(copy)) + u')';
        const QString candidate =
            isFile ? DownloadNames::marked(name, mark) : DownloadNames::shortened(name, mark);
        if (take(candidate))
            return candidate;
    }
}

} // namespace orx
