#pragma once

#include "CacheFixture.h"

#include <SQLiteCpp/Database.h>

namespace orx::testing {

//! A cache with the entries "a", "b" and "c" of 100 bytes each.
class CacheUpkeepFixture : public CacheFixture {
protected:
    void SetUp() override {
        for (const char* name : {"a", "b", "c"})
            ASSERT_FALSE(fill(QString::fromLatin1(name), QByteArray(100, 'x')).hasError());
    }
    void execute(const std::string& statement) {
        SQLite::Database(database().toStdString(), SQLite::OPEN_READWRITE, 10'000).exec(statement);
    }
    //! Changes a byte of a file that keeps its size and time.
    void damage(const QString& name) {
        struct stat before {};
        const int file = ::open(QFile::encodeName(name).constData(), O_RDWR);
        ASSERT_GE(file, 0);
        ASSERT_EQ(::fstat(file, &before), 0);
        ASSERT_EQ(::pwrite(file, "?", 1, 0), 1);
        const struct timespec times[2] = {before.st_atim, before.st_mtim};
        ASSERT_EQ(::futimens(file, times), 0);
        ::close(file);
    }
    static QStringList namesOf(const QList<ResourceCacheEntry>& entries) {
        QStringList names;
        for (const ResourceCacheEntry& entry : entries)
            names << entry.subPath;
        return names;
    }
};

} // namespace orx::testing
