#include "ExternalArrays.h"

#include "ByteStream.h"
#include "Texts.h"

namespace orx {

namespace {

constexpr qint64 kPiece = 64 * 1024;

} // namespace

//! Spectra share arrays where they are equal; a document that has the same bytes read over and over is no
//! image.
ExternalArrays::ExternalArrays(const ReadOnlyFile& file)
    : m_file(file), m_budget(8 * file.size() + 64 * 1024 * 1024) {}

Result<ArrayReader::Figures> ExternalArrays::read(qint64 offset, qint64 length, const ArrayFormat& format,
                                                  const std::stop_token& stop) {
    const Place place{offset, length, format};
    for (int i = 0; i < 2; ++i) {
        if (m_last[i] == place) {
            m_oldest = 1 - i;
            return m_lastFigures[i];
        }
    }
    if (offset < 0 || length < 0 || offset > m_file.size() || length > m_file.size() - offset)
        return Error(ErrorCode::ParseError, msText("it lies beyond the end of the companion."));
    m_budget -= length;
    if (m_budget < 0)
        return Error(ErrorCode::ParseError, msText("too many spectra share the bytes of the companion."));
    m_reader.begin(format);
    for (qint64 at = 0; at < length; at += kPiece) {
        if (stop.stop_requested())
            return Error(ErrorCode::Canceled, msText("Canceled."));
        const auto bytes = m_file.bytesAt(offset + at, qMin(kPiece, length - at));
        if (bytes.hasError())
            return bytes.error();
        m_reader.bytes({bytes->constData(), size_t(bytes->size())});
    }
    ORX_RETURN_ON_ERROR(m_reader.end());
    m_last[m_oldest] = place;
    m_lastFigures[m_oldest] = m_reader.figures(0);
    m_oldest = 1 - m_oldest;
    return m_reader.figures(0);
}

} // namespace orx
