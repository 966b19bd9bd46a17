#pragma once

#include <QString>

namespace orx {

//! The temporary directories that this process made for its own work. Thread: any.
class HalvaneTemporaryDirs {
public:
    static void add(const QString& dir);
    static void remove(const QString& dir);
    //! Whether \a canonicalPath lies below one of them.
    static bool contains(const QString& canonicalPath);
};

//! The path that names a local file in the history and the journal: canonical, or absolute and cleaned where
//! the file does not exist.
QString canonicalLocalPath(const QString& localPath);

} // namespace orx
