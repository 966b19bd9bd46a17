#include "SummaryReaders.h"

#include "ArrayReader.h"
#include "RunCollector.h"
#include "TextNumbers.h"
#include "Texts.h"
#include "XmlParser.h"

#include <string>
#include <vector>

namespace orx {

namespace {

//! A duration such as "PT353.43S" or "PT1H2M3S" in seconds; a plain number counts as seconds. Years and
//! months have no fixed length and make it none.
std::optional<double> durationSeconds(std::string_view text) {
    text = trimmedView(text);
    if (text.empty() || text.front() != 'P')
        return finiteNumber(text);
    text.remove_prefix(1);
    bool isTime = false;
    double seconds = 0;
    while (!text.empty()) {
        if (text.front() == 'T') {
            isTime = true;
            text.remove_prefix(1);
            continue;
        }
        const size_t unit = text.find_first_not_of("0123456789.eE+-");
        if (unit == std::string_view::npos)
            return std::nullopt;
        const auto value = finiteNumber(text.substr(0, unit));
        double factor = 0;
        if (!isTime && text[unit] == 'D')
            factor = 86400;
        else if (isTime && text[unit] == 'H')
            factor = 3600;
        else if (isTime && text[unit] == 'M')
            factor = 60;
        else if (isTime && text[unit] == 'S')
            factor = 1;
        if (!value || (factor == 0 && *value != 0))
            return std::nullopt;
        seconds += *value * factor;
        text.remove_prefix(unit + 1);
    }
    return seconds;
}

//! A scan that is open; others may be inside it.
struct OpenScan {
    SpectrumFacts facts;
    std::optional<ValueRange> decodedMz;
};

class MzXmlHandler final : public XmlParser::Handler {
public:
    explicit MzXmlHandler(RunCollector& collector) : m_collector(collector) {}

    XmlParser* parser = nullptr;

    void startElement(std::string_view name, const XmlAttributes& attributes) override;
    void endElement(std::string_view name) override;
    void text(std::string_view piece) override { m_reader.text(piece); }

private:
    enum class Content { Pairs, Mz, Intensity, Other };

    void beginScan(const XmlAttributes& attributes);
    void beginPeaks(const XmlAttributes& attributes);
    void endPeaks();
    void endScan();
    void beginInstrument(const XmlAttributes& attributes);

    RunCollector& m_collector;
    ArrayReader m_reader;
    std::vector<OpenScan> m_scans;
    Content m_content = Content::Other;
    bool m_isReadingText = false;
    bool m_hasInstrument = false;
};

void MzXmlHandler::startElement(std::string_view name, const XmlAttributes& attributes) {
    if (name == "scan") {
        beginScan(attributes);
    } else if (name == "peaks" && !m_scans.empty()) {
        beginPeaks(attributes);
    } else if (name == "msRun") {
        if (const auto count = wholeNumber(attributes.value("scanCount")))
            m_collector.addDeclaredCount(*count);
    } else if (name == "msModel") {
        beginInstrument(attributes);
    }
}

//! Of several instruments the first counts.
void MzXmlHandler::beginInstrument(const XmlAttributes& attributes) {
    if (m_hasInstrument)
        return;
    m_hasInstrument = true;
    m_collector.setInstrument(shortText(attributes.value("value")));
}

void MzXmlHandler::beginScan(const XmlAttributes& attributes) {
    OpenScan scan;
    SpectrumFacts& facts = scan.facts;
    facts.level = boundedNumber(attributes.value("msLevel"), 1000);
    facts.time = durationSeconds(attributes.value("retentionTime"));
    facts.totalIonCurrent = finiteNumber(attributes.value("totIonCurrent"));
    facts.basePeak = finiteNumber(attributes.value("basePeakIntensity"));
    const auto range = [&](const char* lowName, const char* highName) -> std::optional<ValueRange> {
        const auto low = finiteNumber(attributes.value(lowName));
        const auto high = finiteNumber(attributes.value(highName));
        if (!low || !high || *low > *high)
            return std::nullopt;
        return ValueRange{*low, *high};
    };
    facts.observedMz = range("lowMz", "highMz");
    facts.scanWindow = range("startMz", "endMz");
    m_scans.push_back(scan);
}

void MzXmlHandler::beginPeaks(const XmlAttributes& attributes) {
    const SpectrumFacts& facts = m_scans.back().facts;
    const bool isIonCurrentStated = facts.totalIonCurrent && facts.basePeak;
    const bool isMzKnown = facts.observedMz || (isIonCurrentStated && facts.scanWindow);
    if (isIonCurrentStated && isMzKnown)
        return;
    std::string_view content = attributes.value("contentType");
    if (content.empty())
        content = attributes.value("pairOrder");
    m_content = Content::Other;
    if (content.empty() || content == "m/z-int")
        m_content = Content::Pairs;
    else if (content == "m/z")
        m_content = Content::Mz;
    else if (content == "intensity")
        m_content = Content::Intensity;
    if (m_content == Content::Other)
        return;
    const std::string_view compression = attributes.value("compressionType");
    ArrayFormat format;
    format.number =
        attributes.value("precision") == "64" ? ArrayFormat::Number::Float64 : ArrayFormat::Number::Float32;
    if (compression.empty() || compression == "none")
        format.compression = ArrayFormat::Compression::None;
    else if (compression == "zlib")
        format.compression = ArrayFormat::Compression::Zlib;
    format.isBigEndian = true;
    format.channels = m_content == Content::Pairs ? 2 : 1;
    m_reader.begin(format);
    m_isReadingText = true;
    parser->wantText(true);
}

void MzXmlHandler::endPeaks() {
    parser->wantText(false);
    m_isReadingText = false;
    if (const Error error = m_reader.end(); error.hasError())
        return m_collector.addUnreadableArray(error.errorMessage());
    OpenScan& scan = m_scans.back();
    if (m_content != Content::Intensity && !scan.facts.observedMz)
        scan.decodedMz = m_reader.figures(0).range;
    if (m_content == Content::Mz)
        return;
    const ArrayReader::Figures& intensities = m_reader.figures(m_content == Content::Pairs ? 1 : 0);
    if (!scan.facts.totalIonCurrent)
        scan.facts.totalIonCurrent = intensities.sum;
    if (!scan.facts.basePeak)
        scan.facts.basePeak = intensities.range ? intensities.range->highest : 0;
}

void MzXmlHandler::endScan() {
    OpenScan& scan = m_scans.back();
    if (!scan.facts.observedMz)
        scan.facts.observedMz = scan.decodedMz;
    m_collector.add(scan.facts);
    m_scans.pop_back();
}

void MzXmlHandler::endElement(std::string_view name) {
    if (name == "peaks" && m_isReadingText) {
        endPeaks();
    } else if (name == "scan" && !m_scans.empty()) {
        endScan();
    }
}

} // namespace

Result<RunSummary> summariseMzXml(ByteStream& document, const std::stop_token& stop) {
    RunCollector collector(MsDataKind::MzXml);
    MzXmlHandler handler(collector);
    XmlParser parser(handler);
    handler.parser = &parser;
    ORX_RETURN_ON_ERROR(parser.parse(document, stop));
    return collector.build();
}

} // namespace orx
