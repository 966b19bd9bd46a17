#include "SummaryReaders.h"

#include "ByteStream.h"
#include "RunCollector.h"
#include "TextNumbers.h"
#include "Texts.h"

#include <array>
#include <cstring>
#include <string>

namespace orx {

namespace {

constexpr qsizetype kPiece = 64 * 1024;
constexpr size_t kLongestLine = 64 * 1024;
// The format is for fragment spectra; a list that is of another level says so.
constexpr int kUsualLevel = 2;

bool startsWith(std::string_view line, std::string_view prefix) {
    return line.substr(0, prefix.size()) == prefix;
}

//! The next word of a line, taken off its front.
std::string_view takeWord(std::string_view& line) {
    line = trimmedView(line);
    const std::string_view word = line.substr(0, line.find_first_of(" \t"));
    line.remove_prefix(word.size());
    return word;
}

class PeakListReader {
public:
    explicit PeakListReader(RunCollector& collector) : m_collector(collector) {}

    Error line(std::string_view line);
    Error end() const;

private:
    void begin();
    void finish();
    void parameter(std::string_view line);
    Error peak(std::string_view line);

    RunCollector& m_collector;
    SpectrumFacts m_facts;
    double m_sum = 0;
    double m_highest = 0;
    bool m_isInside = false;
    qint64 m_lines = 0;
};

void PeakListReader::begin() {
    m_isInside = true;
    m_facts = {};
    m_facts.level = kUsualLevel;
    m_sum = 0;
    m_highest = 0;
}

void PeakListReader::finish() {
    m_isInside = false;
    m_facts.totalIonCurrent = m_sum;
    m_facts.basePeak = m_highest;
    m_collector.add(m_facts);
}

Error PeakListReader::line(std::string_view line) {
    ++m_lines;
    line = trimmedView(line);
    if (line.empty() || std::string_view("#;!/").find(line.front()) != std::string_view::npos)
        return Error();
    if (line == "BEGIN IONS") {
        if (m_isInside)
            return Error(ErrorCode::ParseError,
                         msText("In line %1 a peak list begins within another.").arg(m_lines));
        begin();
    } else if (line == "END IONS" && m_isInside) {
        finish();
    } else if (m_isInside && line.front() >= '0' && line.front() <= '9') {
        return peak(line);
    } else {
        parameter(line);
    }
    return Error();
}

void PeakListReader::parameter(std::string_view line) {
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos)
        return;
    const std::string_view key = line.substr(0, equals);
    const std::string_view value = trimmedView(line.substr(equals + 1));
    if (!m_isInside) {
        if (key == "INSTRUMENT")
            m_collector.setInstrument(shortText(value));
        return;
    }
    // A list of times or a range of them is that of merged spectra; its first time counts.
    if (key == "RTINSECONDS")
        m_facts.time = finiteNumber(value.substr(0, value.find_first_of("-, ", 1)));
    else if (key == "MSLEVEL")
        m_facts.level = boundedNumber(value, 1000);
}

Error PeakListReader::peak(std::string_view line) {
    const auto mz = finiteNumber(takeWord(line));
    const std::string_view second = takeWord(line);
    const auto intensity = finiteNumber(second);
    if (!mz || (!second.empty() && !intensity))
        return Error(ErrorCode::ParseError, msText("Line %1 is not a peak.").arg(m_lines));
    ValueRange::extend(m_facts.observedMz, *mz);
    m_sum += intensity.value_or(0);
    m_highest = std::max(m_highest, intensity.value_or(0));
    return Error();
}

Error PeakListReader::end() const {
    if (!m_isInside)
        return Error();
    return Error(ErrorCode::ParseError, msText("It ends within a peak list."));
}

//! Cuts a stream into lines.
class LineCutter {
public:
    LineCutter(ByteStream& stream, const std::stop_token& stop) : m_stream(stream), m_stop(stop) {}

    template <typename OnLine>
    Error run(OnLine onLine) {
        for (;;) {
            if (m_stop.stop_requested())
                return Error(ErrorCode::Canceled, msText("Canceled."));
            const auto count = m_stream.read(m_piece.data(), kPiece);
            if (count.hasError())
                return count.error();
            if (*count == 0)
                return m_begun.empty() ? Error() : onLine(std::string_view(m_begun));
            ORX_RETURN_ON_ERROR(cut({m_piece.data(), size_t(*count)}, onLine));
        }
    }

private:
    template <typename OnLine>
    Error cut(std::string_view piece, OnLine& onLine) {
        for (;;) {
            const size_t end = piece.find('\n');
            const std::string_view part = piece.substr(0, end);
            if (m_begun.size() + part.size() > kLongestLine)
                return Error(ErrorCode::ParseError,
                             msText("It has a line of more than %1 bytes.").arg(kLongestLine));
            if (end == std::string_view::npos) {
                m_begun += part;
                return Error();
            }
            if (m_begun.empty()) {
                ORX_RETURN_ON_ERROR(onLine(part));
            } else {
                m_begun += part;
                ORX_RETURN_ON_ERROR(onLine(std::string_view(m_begun)));
                m_begun.clear();
            }
            piece.remove_prefix(end + 1);
        }
    }

    ByteStream& m_stream;
    const std::stop_token& m_stop;
    std::array<char, kPiece> m_piece;
    std::string m_begun;
};

} // namespace

Result<RunSummary> summariseMgf(ByteStream& text, const std::stop_token& stop) {
    RunCollector collector(MsDataKind::Mgf);
    PeakListReader reader(collector);
    const auto cutter = std::make_unique<LineCutter>(text, stop);
    bool isFirst = true;
    ORX_RETURN_ON_ERROR(cutter->run([&](std::string_view line) {
        if (std::exchange(isFirst, false) && startsWith(line, "\xef\xbb\xbf"))
            line.remove_prefix(3);
        return reader.line(line);
    }));
    ORX_RETURN_ON_ERROR(reader.end());
    return collector.build();
}

} // namespace orx
