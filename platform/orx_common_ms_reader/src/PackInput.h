#pragma once

#include "orx_common_ms_reader_export.h"

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>
#include <stop_token>

namespace orx::vonk {

//! What is packed, and what is said about it. A value; thread: any.
struct ORX_COMMON_MS_READER_EXPORT PackInput {
    //! A summary of the run, or why there is none.
    struct Summary {
        std::optional<QJsonObject> json;
        QString absent;
    };
    //! Called once, on a thread of its own while the data is packed, or after it when enough other ones are
    //! being made in this process; what it returns when it was asked to stop is not used.
    using Summarise = std::function<Summary(std::stop_token)>;

    //! The raw acquisition \a path with its companions, its kind and its summary, which is made while it is
    //! packed. Looks at the path, as MsDataFileUtils::checkMsData() does, and reads nothing else. What is no
    //! valid raw acquisition gets a refusal.
    static PackInput fromMs(const QString& path);

    //! The file or directory. A link is followed here, and nowhere below.
    QString path;
    //! Files beside it that belong to it.
    QStringList companions;
    //! What kind of raw data it is; empty when unknown.
    QString sourceKind;
    //! May be empty: then there is no summary, and no reason either.
    Summarise summarise;
    //! Not empty: why it is not to be packed, a sentence without the path.
    QString refusal;
};

} // namespace orx::vonk
