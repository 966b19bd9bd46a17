#pragma once

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace orx::testing {

//! Files in a temporary directory, by their paths in it.
class MergeFiles {
protected:
    QString at(const char* path) const {
        return QFileInfo(m_dir.path()).canonicalFilePath() + u'/' + QString::fromUtf8(path);
    }
    void put(const char* path, const QByteArray& content) const {
        ASSERT_TRUE(QDir().mkpath(QFileInfo(at(path)).path()));
        QFile file(at(path));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(content), content.size());
    }
    QByteArray get(const char* path) const {
        QFile file(at(path));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(nothing)");
    }
    QTemporaryDir m_dir;
};

} // namespace orx::testing
