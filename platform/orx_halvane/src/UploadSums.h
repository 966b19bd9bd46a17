#pragma once

#include "orx_halvane_export.h"

#include <QString>

#include <functional>
#include <memory>
#include <stop_token>

namespace orx {

//! Counts the uploads of files that a directory would make with everything below it, as the rules for uploads
//! say. What a directory itself holds is remembered as long as its stamp and the rules are the same, so that
//! of a large tree, whose every folder asks for its own part once more, directories are looked at and not all
//! their files. Thread: any.
class ORX_HALVANE_EXPORT UploadSums {
public:
    //! Nanoseconds since 1970.
    using Clock = std::function<qint64()>;

    //! The one of the process.
    static UploadSums& instance();
    explicit UploadSums(Clock clock);
    ~UploadSums();
    Q_DISABLE_COPY_MOVE(UploadSums)

    //! 0 for what is no directory, any number once \a stop says so. Blocks; reads no content but what tells
    //! raw data, and of that nothing that is remembered.
    int uploadsIn(const QString& directory, const std::stop_token& stop = {});
    //! How many directories were listed so far: those that were not remembered.
    quint64 listings() const;

private:
    struct Private;
    const std::unique_ptr<Private> d;
};

} // namespace orx
