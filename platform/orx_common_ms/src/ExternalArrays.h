#pragma once

#include "ArrayReader.h"

#include <Result.h>

#include <stop_token>

namespace orx {

class ReadOnlyFile;

//! The arrays that imaging data keeps in its binary companion. One thread at a time.
class ExternalArrays {
public:
    //! \a file outlives this.
    explicit ExternalArrays(const ReadOnlyFile& file);

    //! Sums up \a length bytes from \a offset on. The array that was read last is not read again, since all
    //! spectra of an image may share one. ParseError when the array is damaged or not within the file.
    Result<ArrayReader::Figures> read(qint64 offset, qint64 length, const ArrayFormat& format,
                                      const std::stop_token& stop);

private:
    struct Place {
        qint64 offset = -1;
        qint64 length = -1;
        ArrayFormat format;
        friend bool operator==(const Place&, const Place&) = default;
    };

    const ReadOnlyFile& m_file;
    ArrayReader m_reader;
    Place m_last[2]; // of m/z and of intensity, which alternate
    ArrayReader::Figures m_lastFigures[2];
    int m_oldest = 0;
    qint64 m_budget;
};

} // namespace orx
