#pragma once

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

namespace orx::test {

//! A temporary directory in which tests put together acquisitions.
class MsDataMaker {
public:
    //! The absolute path of \a name in the directory.
    QString path(const QString& name) const { return m_dir.filePath(name); }
    //! Writes a file, with the directories above it; returns its path.
    QString file(const QString& name, const QByteArray& content) const;
    QString directory(const QString& name) const;
    //! A catalogue of frames with three frames at 1, 2 and 4 seconds; \a closedProperly empty: it says
    //! nothing.
    QString catalogue(const QString& name, const QByteArray& closedProperly = "1") const;
    //! Runs statements on a database, which is made when it is missing.
    static void execute(const QString& database, const QByteArray& sql);
    static QByteArray gzipped(const QByteArray& content);
    //! An ASCII document as UTF-16 with a byte-order mark.
    static QByteArray utf16(const QByteArray& content, bool lowByteFirst);

    //! The smallest documents of their kinds.
    static QByteArray mzMl();
    static QByteArray imzMl(const QByteArray& uuid);
    static QByteArray mzXml();
    static QByteArray compoundDocument();

private:
    QTemporaryDir m_dir;
};

} // namespace orx::test
