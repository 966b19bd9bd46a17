#pragma once

#include "orx_common_ms_export.h"

#include <Error.h>

#include <RunSummary.h>

#include <array>
#include <memory>
#include <optional>
#include <string_view>

namespace orx {

//! How an array of numbers is written.
struct ArrayFormat {
    enum class Number { Unknown, Float32, Float64, Int32, Int64 };
    enum class Compression { Unknown, None, Zlib };

    Number number = Number::Unknown;
    Compression compression = Compression::Unknown;
    bool isBigEndian = false;
    //! 2: the values of two arrays alternate.
    int channels = 1;
    qint64 bytesPerNumber() const { return number == Number::Float32 || number == Number::Int32 ? 4 : 8; }
    friend bool operator==(const ArrayFormat&, const ArrayFormat&) = default;
};

//! Sums up arrays of numbers while their text or bytes come in, without ever holding one of them.
class ORX_COMMON_MS_EXPORT ArrayReader {
public:
    struct Figures {
        qint64 count = 0;
        double sum = 0;
        std::optional<ValueRange> range;
    };

    ArrayReader();
    ~ArrayReader();
    Q_DISABLE_COPY_MOVE(ArrayReader)

    //! Starts with an array; whatever was left of another one is dropped.
    void begin(const ArrayFormat& format);
    //! A piece of its base64 text. Nothing more has an effect once something was wrong.
    void text(std::string_view piece);
    //! A piece of its bytes, where they are not written as text.
    void bytes(std::string_view piece);
    //! Whether the array was whole and right; values that are not finite are counted and otherwise passed
    //! over.
    Error end();
    //! Of the array that ended last, by channel.
    const Figures& figures(int channel) const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
