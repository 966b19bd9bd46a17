#include "LocalNames.h"

#include "DownloadNames.h"

namespace orx {

namespace {

//! Where the extension of a file's name begins, with its dot; the end when there is none. The dot of a hidden
//! file begins no extension.
qsizetype extensionOf(const QString& name) {
    const qsizetype dot = name.lastIndexOf(u'.');
    return dot > 0 ? dot : name.size();
}

} // namespace

bool LocalNames::take(const QString& name) {
    if (m_taken.contains(name))
        return false;
    m_taken.insert(name);
    return true;
}

QString LocalNames::takeFree(const QString& name, Kind kind, int id) {
    const bool isFile = kind == Kind::File;
    const qsizetype split = isFile ? extensionOf(name) : name.size();
    const QString item = (isFile ? QStringLiteral(" (file %1") : QStringLiteral(" (folder %1")).arg(id);
    for (int copy = 1;; ++copy) {
        const QString number = copy == 1 ? QString() : QStringLiteral(", %1").arg(copy);
        const QString end = item + number + u')' + name.mid(split);
        const QString candidate = DownloadNames::shortened(name.left(split), end);
        if (take(candidate))
            return candidate;
    }
}

} // namespace orx
