#pragma once

#include "orx_halvane_resource_handler_export.h"

#include <FileStamp.h>

#include <QHash>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <mutex>
#include <stop_token>

namespace orx {

//! Counts the uploads of files that a directory would make with everything below it, as the rules for uploads
//! say. What a directory itself holds is remembered as long as its stamp and the rules are the same, so that
//! of a large tree, whose every folder asks for its own part once more, directories are looked at and not all
//! their files. Thread: any.
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT UploadSums {
public:
    //! Nanoseconds since 1970.
    using Clock = std::function<qint64()>;

    //! The one of the process.
    static UploadSums& instance();
    explicit UploadSums(Clock clock);

    //! 0 for what is no directory, any number once \a stop says so. Blocks; reads no content but what tells
    //! raw data, and of that nothing that is remembered.
    int uploadsIn(const QString& directory, const std::stop_token& stop = {});
    //! How many directories were listed so far: those that were not remembered.
    quint64 listings() const;

private:
    //! What one directory holds.
    struct Level {
        int files = 0;
        QStringList directories;
        //! Whether nothing but a change of the directory or of the rules changes it.
        bool isLasting = true;
    };
    struct Remembered {
        FileStamp stamp;
        quint64 rules;
        std::shared_ptr<const Level> level;
    };

    std::shared_ptr<const Level> levelOf(const QString& directory);
    std::shared_ptr<const Level> recall(const QByteArray& path, const FileStamp& stamp, quint64 rules) const;

    const Clock m_clock;
    mutable std::mutex m_mutex;
    QHash<QByteArray, Remembered> m_levels;
    quint64 m_listings = 0;
};

} // namespace orx
