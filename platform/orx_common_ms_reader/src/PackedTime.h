#pragma once

#include "orx_common_ms_reader_export.h"

#include <QString>

#include <optional>

namespace orx::vonk {

//! A time of modification, as file systems and tar archives have it.
struct ORX_COMMON_MS_READER_EXPORT PackedTime {
    //! Since 1970-01-01 UTC, rounded down; less than 10^12 in magnitude.
    qint64 seconds = 0;
    //! 0 to 999,999,999.
    int nanoseconds = 0;

    //! Decimal seconds without trailing zeros: "1767225600", "1767225600.25", "-0.5".
    QString toString() const;
    //! Nothing unless \a text is what toString() would give.
    static std::optional<PackedTime> fromString(const QString& text);

    friend bool operator==(const PackedTime&, const PackedTime&) = default;
};

} // namespace orx::vonk
