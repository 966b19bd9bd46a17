#pragma once

#include <Result.h>

#include <QByteArray>
#include <QList>
#include <QString>

namespace orx {

//! A checked name of a place in the cache: components that a file system can hold, none of which leads
//! anywhere else. A value.
class CacheSubPath {
public:
    //! ErrorCode::InvalidArgument, naming the reason, for what ResourceCache::expectedPath() refuses.
    //! \a rootBytes: the length of the path of the content directory, so that the whole stays usable.
    static Result<CacheSubPath> parse(const QString& text, qsizetype rootBytes);

    const QString& text() const { return m_text; }
    //! As the file system holds them; at least one.
    const QList<QByteArray>& components() const { return m_components; }
    const QByteArray& name() const { return m_components.last(); }
    //! 64 hexadecimal digits that stand for the sub-path in names and locks.
    QByteArray key() const;

private:
    QString m_text;
    QList<QByteArray> m_components;
};

} // namespace orx
