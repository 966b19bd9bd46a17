#include "RemotePath.h"

namespace halvane::host {

using orx::Error;
using orx::ErrorCode;
using orx::Result;

namespace {

bool isDots(const QString& name) {
    return name == u"." || name == u"..";
}

} // namespace

Result<RemotePath> RemotePath::parse(const QString& text) {
    if (!text.startsWith(u'/'))
        return Error(ErrorCode::InvalidArgument,
                     QStringLiteral("\"%1\" is neither a remote path (/raw/2026/run1.mzML) nor a reference "
                                    "(file:12, file:12@3, folder:7).")
                         .arg(text));
    RemotePath path;
    path.m_names = text.split(u'/', Qt::SkipEmptyParts);
    path.m_mustBeFolder = text.endsWith(u'/');
    for (const QString& name : path.m_names) {
        if (isDots(name))
            return Error(ErrorCode::InvalidArgument,
                         QStringLiteral("The remote path \"%1\" must not hold \"%2\": write it out in full.")
                             .arg(text, name));
    }
    return path;
}

QString RemotePath::join(const QString& parent, const QString& name) {
    return parent.endsWith(u'/') ? parent + name : parent + u'/' + name;
}

QString RemotePath::fromChain(const QStringList& chain) {
    return u'/' + chain.join(u'/');
}

bool isUsableLocalName(const QString& name) {
    return !name.isEmpty() && !isDots(name) && !name.contains(u'/') && !name.contains(QChar(0)) &&
           name.toUtf8().size() <= 255;
}

} // namespace halvane::host
