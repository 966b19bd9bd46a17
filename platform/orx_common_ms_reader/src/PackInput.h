#pragma once

#include "orx_common_ms_reader_export.h"

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

namespace orx::vonk {

//! What is packed, and what is said about it.
struct ORX_COMMON_MS_READER_EXPORT PackInput {
    //! A summary of the run, or why there is none.
    struct Summary {
        std::optional<QJsonObject> json;
        QString absent;
    };
    using IsCanceled = std::function<bool()>;
    //! Called once, on a thread of its own while the data is packed; must not touch what belongs to another.
    using Summarise = std::function<Summary(const IsCanceled&)>;

    //! The file or directory. A link is followed here, and nowhere below.
    QString path;
    //! Files beside it that belong to it.
    QStringList companions;
    //! What kind of raw data it is; empty when unknown.
    QString sourceKind;
    //! May be empty: then there is no summary, and no reason either.
    Summarise summarise;
};

} // namespace orx::vonk
