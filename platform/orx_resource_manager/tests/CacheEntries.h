#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>

namespace orx::testing {

//! Entries of which everybody knows the content by their number: every third is a directory. Contents of
//! different rounds have the same size.
inline QString numberedEntry(const QString& top, int number) {
    return top + u'/' + QString::number(number);
}

inline QByteArray numberedContent(int number, const char* round) {
    return QByteArray(round).append(QByteArray::number(number)).repeated(500 + number % 5 * 20'000);
}

inline QStringList numberedFiles(const QString& path, int number) {
    if (number % 3 != 2)
        return {path};
    return {path + QStringLiteral("/a"), path + QStringLiteral("/sub/b")};
}

inline bool writeNumberedEntry(const QString& path, int number, const char* round) {
    for (const QString& name : numberedFiles(path, number)) {
        QFile file(name);
        const QByteArray content = numberedContent(number, round);
        if (!QDir().mkpath(QFileInfo(name).path()) || !file.open(QIODevice::WriteOnly) ||
            file.write(content) != content.size())
            return false;
    }
    return true;
}

inline bool holdsNumberedEntry(const QString& path, int number, const char* round) {
    for (const QString& name : numberedFiles(path, number)) {
        QFile file(name);
        if (!file.open(QIODevice::ReadOnly) || file.readAll() != numberedContent(number, round))
            return false;
    }
    return true;
}

} // namespace orx::testing
