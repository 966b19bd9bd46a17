#include "SummaryReaders.h"

#include "ArrayReader.h"
#include "ByteStream.h"
#include "ExternalArrays.h"
#include "RunCollector.h"
#include "TextNumbers.h"
#include "Texts.h"
#include "XmlParser.h"

#include <map>
#include <string>
#include <vector>

namespace orx {

namespace {

// Terms of the vocabulary, by their numbers.
namespace Ms {
constexpr int kScanStartTime = 1000016;
constexpr int kInstrumentModel = 1000031;
constexpr int kCustomisation = 1000032;
constexpr int kMinute = 1000038;
constexpr int kSecond = 1000039;
constexpr int kTotalIonCurrent = 1000285;
constexpr int kWindowUpper = 1000500;
constexpr int kWindowLower = 1000501;
constexpr int kBasePeakIntensity = 1000505;
constexpr int kMsLevel = 1000511;
constexpr int kMzArray = 1000514;
constexpr int kIntensityArray = 1000515;
constexpr int kInt32 = 1000519;
constexpr int kFloat32 = 1000521;
constexpr int kInt64 = 1000522;
constexpr int kFloat64 = 1000523;
constexpr int kHighestObserved = 1000527;
constexpr int kLowestObserved = 1000528;
constexpr int kSerialNumber = 1000529;
constexpr int kZlib = 1000574;
constexpr int kNoCompression = 1000576;
constexpr int kMs1Spectrum = 1000579;
} // namespace Ms
namespace Ims {
constexpr int kExternalOffset = 1000102;
constexpr int kExternalCount = 1000103;
constexpr int kExternalLength = 1000104;
} // namespace Ims

constexpr size_t kMostGroupBytes = 256 * 1024;
constexpr size_t kMostInstruments = 64;

enum class Vocabulary { Other, Ms, Ims };

struct Parameter {
    Vocabulary vocabulary = Vocabulary::Other;
    int term = 0;
    std::string name;
    std::string value;
    std::string unit;

    size_t bytes() const { return sizeof(Parameter) + name.size() + value.size() + unit.size(); }
};

//! What a view points at lives as long as the call that hands it over.
struct ParameterView {
    Vocabulary vocabulary = Vocabulary::Other;
    int term = 0;
    std::string_view name;
    std::string_view value;
    std::string_view unit;
};

ParameterView viewOf(const XmlAttributes& attributes) {
    ParameterView view;
    const std::string_view accession = attributes.value("accession");
    const size_t colon = accession.find(':');
    if (colon != std::string_view::npos) {
        const std::string_view vocabulary = accession.substr(0, colon);
        if (vocabulary == "MS")
            view.vocabulary = Vocabulary::Ms;
        else if (vocabulary == "IMS")
            view.vocabulary = Vocabulary::Ims;
        view.term = boundedNumber(accession.substr(colon + 1), 1 << 30);
    }
    view.name = attributes.value("name");
    view.value = attributes.value("value");
    view.unit = attributes.value("unitAccession");
    return view;
}

//! Factor to seconds; absent for a unit that is none of time.
std::optional<double> secondsPer(std::string_view unit) {
    if (unit == "UO:0000010" || unit == "MS:1000039")
        return 1;
    if (unit == "UO:0000031" || unit == "MS:1000038")
        return 60;
    if (unit == "UO:0000028")
        return 0.001;
    if (unit == "UO:0000032")
        return 3600;
    return std::nullopt;
}

std::optional<ValueRange> rangeOf(const std::optional<double>& low, const std::optional<double>& high) {
    if (!low || !high || *low > *high)
        return std::nullopt;
    return ValueRange{*low, *high};
}

//! Keeps what the parameters and arrays of one spectrum say, until it ends.
class SpectrumReader {
public:
    SpectrumReader(RunCollector& collector, ExternalArrays* external)
        : m_collector(collector), m_external(external) {}

    void begin();
    void end();
    void parameter(const ParameterView& parameter);
    void beginScan() { ++m_scans; }
    void beginWindow() { m_windowLow = m_windowHigh = std::nullopt; }
    void endWindow();
    void beginArray();
    //! Whether the text of the array that began is wanted.
    bool beginText();
    void text(std::string_view piece) { m_reader.text(piece); }
    void endText();
    Error endArray(const std::stop_token& stop);

private:
    enum class Array { Other, Mz, Intensity };

    void arrayParameter(const ParameterView& parameter);
    void externalParameter(const ParameterView& parameter);
    void scanStartTime(const ParameterView& parameter);
    bool isIonCurrentStated() const { return m_facts.totalIonCurrent && m_facts.basePeak; }
    bool isWanted() const;
    qint64 externalLength() const;
    void take(const Error& error, const ArrayReader::Figures& figures);

    RunCollector& m_collector;
    ExternalArrays* m_external;
    ArrayReader m_reader;
    SpectrumFacts m_facts;
    std::optional<double> m_lowest;
    std::optional<double> m_highest;
    std::optional<double> m_windowLow;
    std::optional<double> m_windowHigh;
    std::optional<ValueRange> m_decodedMz;
    std::optional<double> m_decodedSum;
    std::optional<double> m_decodedPeak;
    int m_scans = 0;
    bool m_isTimeWithoutUnit = false;
    Array m_array = Array::Other;
    ArrayFormat m_format;
    std::optional<qint64> m_externalOffset;
    std::optional<qint64> m_externalLength;
    std::optional<qint64> m_externalCount;
};

void SpectrumReader::begin() {
    m_facts = {};
    m_lowest = m_highest = m_windowLow = m_windowHigh = std::nullopt;
    m_decodedMz = std::nullopt;
    m_decodedSum = m_decodedPeak = std::nullopt;
    m_scans = 0;
    m_isTimeWithoutUnit = false;
}

void SpectrumReader::end() {
    m_facts.observedMz = rangeOf(m_lowest, m_highest);
    if (!m_facts.observedMz)
        m_facts.observedMz = m_decodedMz;
    if (!m_facts.totalIonCurrent)
        m_facts.totalIonCurrent = m_decodedSum;
    if (!m_facts.basePeak)
        m_facts.basePeak = m_decodedPeak;
    if (m_isTimeWithoutUnit && !m_facts.time)
        m_collector.addTimeWithoutUnit();
    m_collector.add(m_facts);
}

void SpectrumReader::scanStartTime(const ParameterView& parameter) {
    // Of spectra that are made of several scans, the first one's counts.
    if (m_facts.time || m_scans > 1)
        return;
    const auto value = finiteNumber(parameter.value);
    const auto seconds = secondsPer(parameter.unit);
    m_isTimeWithoutUnit = value && !seconds;
    if (value && seconds)
        m_facts.time = *value * *seconds;
}

void SpectrumReader::parameter(const ParameterView& parameter) {
    if (parameter.vocabulary == Vocabulary::Ims)
        return externalParameter(parameter);
    if (parameter.vocabulary != Vocabulary::Ms)
        return;
    switch (parameter.term) {
    case Ms::kMsLevel:
        m_facts.level = boundedNumber(parameter.value, 1000);
        break;
    case Ms::kMs1Spectrum:
        m_facts.level = m_facts.level == 0 ? 1 : m_facts.level;
        break;
    case Ms::kTotalIonCurrent:
        m_facts.totalIonCurrent = finiteNumber(parameter.value);
        break;
    case Ms::kBasePeakIntensity:
        m_facts.basePeak = finiteNumber(parameter.value);
        break;
    case Ms::kLowestObserved:
        m_lowest = finiteNumber(parameter.value);
        break;
    case Ms::kHighestObserved:
        m_highest = finiteNumber(parameter.value);
        break;
    case Ms::kWindowLower:
        m_windowLow = finiteNumber(parameter.value);
        break;
    case Ms::kWindowUpper:
        m_windowHigh = finiteNumber(parameter.value);
        break;
    case Ms::kScanStartTime:
        scanStartTime(parameter);
        break;
    default:
        arrayParameter(parameter);
    }
}

void SpectrumReader::arrayParameter(const ParameterView& parameter) {
    switch (parameter.term) {
    case Ms::kMzArray:
        m_array = Array::Mz;
        break;
    case Ms::kIntensityArray:
        m_array = Array::Intensity;
        break;
    case Ms::kFloat32:
        m_format.number = ArrayFormat::Number::Float32;
        break;
    case Ms::kFloat64:
        m_format.number = ArrayFormat::Number::Float64;
        break;
    case Ms::kInt32:
        m_format.number = ArrayFormat::Number::Int32;
        break;
    case Ms::kInt64:
        m_format.number = ArrayFormat::Number::Int64;
        break;
    case Ms::kNoCompression:
        m_format.compression = ArrayFormat::Compression::None;
        break;
    case Ms::kZlib:
        m_format.compression = ArrayFormat::Compression::Zlib;
        break;
    default:
        break;
    }
}

void SpectrumReader::externalParameter(const ParameterView& parameter) {
    if (parameter.term == Ims::kExternalOffset)
        m_externalOffset = wholeNumber(parameter.value);
    else if (parameter.term == Ims::kExternalLength)
        m_externalLength = wholeNumber(parameter.value);
    else if (parameter.term == Ims::kExternalCount)
        m_externalCount = wholeNumber(parameter.value);
}

void SpectrumReader::endWindow() {
    if (const auto window = rangeOf(m_windowLow, m_windowHigh)) {
        ValueRange::extend(m_facts.scanWindow, window->lowest);
        ValueRange::extend(m_facts.scanWindow, window->highest);
    }
}

void SpectrumReader::beginArray() {
    m_array = Array::Other;
    m_format = {};
    m_externalOffset = m_externalLength = m_externalCount = std::nullopt;
}

//! The m/z array is read where it must stand in for what the file does not state.
bool SpectrumReader::isWanted() const {
    if (m_array == Array::Intensity)
        return !isIonCurrentStated();
    if (m_array == Array::Mz)
        return !rangeOf(m_lowest, m_highest) && (!isIonCurrentStated() || !m_facts.scanWindow);
    return false;
}

bool SpectrumReader::beginText() {
    if (m_externalOffset || !isWanted())
        return false;
    m_reader.begin(m_format);
    return true;
}

void SpectrumReader::endText() {
    const Error error = m_reader.end();
    take(error, m_reader.figures(0));
}

//! In bytes; -1 when the document tells neither that nor, of an array that is not compressed, its count.
qint64 SpectrumReader::externalLength() const {
    if (m_externalLength)
        return *m_externalLength;
    const qint64 count = m_externalCount.value_or(-1);
    const bool isPlain = m_format.compression == ArrayFormat::Compression::None;
    return isPlain && count >= 0 && count < (qint64(1) << 48) ? count * m_format.bytesPerNumber() : -1;
}

Error SpectrumReader::endArray(const std::stop_token& stop) {
    if (!m_externalOffset || !m_external || !isWanted())
        return Error();
    const auto figures = m_external->read(*m_externalOffset, externalLength(), m_format, stop);
    if (figures.hasError() && figures.error().isCanceled())
        return figures.error();
    take(figures.error(), figures.hasError() ? ArrayReader::Figures() : *figures);
    return Error();
}

void SpectrumReader::take(const Error& error, const ArrayReader::Figures& figures) {
    if (error.hasError())
        return m_collector.addUnreadableArray(error.errorMessage());
    if (m_array == Array::Mz) {
        m_decodedMz = figures.range;
        return;
    }
    m_decodedSum = figures.sum;
    m_decodedPeak = figures.range ? figures.range->highest : 0;
}

//! The instrument models of a document, by the ids of their configurations.
class InstrumentReader {
public:
    void begin(std::string_view id) {
        m_id = std::string(id.substr(0, 256));
        m_model.clear();
    }
    //! The first term that says something of the instrument itself is its model, since the vocabulary has a
    //! term for each.
    void parameter(const ParameterView& parameter) {
        if (parameter.vocabulary != Vocabulary::Ms || !m_model.isEmpty())
            return;
        if (parameter.term == Ms::kSerialNumber || parameter.term == Ms::kCustomisation)
            return;
        const bool isGeneric = parameter.term == Ms::kInstrumentModel;
        m_model = shortText(isGeneric ? parameter.value : parameter.name);
    }
    void end() {
        if (m_models.size() < kMostInstruments)
            m_models.emplace_back(m_id, m_model);
    }
    //! Of that configuration; of the first when there is none of that id.
    QString model(std::string_view id) const {
        for (const auto& [each, model] : m_models) {
            if (each == id)
                return model;
        }
        return m_models.empty() ? QString() : m_models.front().second;
    }

private:
    std::string m_id;
    QString m_model;
    std::vector<std::pair<std::string, QString>> m_models;
};

class DocumentHandler final : public XmlParser::Handler {
public:
    DocumentHandler(RunCollector& collector, ExternalArrays* external, const std::stop_token& stop)
        : m_collector(collector), m_stop(stop), m_spectrum(collector, external) {}

    XmlParser* parser = nullptr;

    void startElement(std::string_view name, const XmlAttributes& attributes) override;
    void endElement(std::string_view name) override;
    void text(std::string_view piece) override { m_spectrum.text(piece); }

private:
    enum class Place { Elsewhere, Group, Instrument, Component, Spectrum };

    void startInSpectrum(std::string_view name);
    void parameter(const ParameterView& parameter);
    void keep(const ParameterView& parameter);
    void useGroup(std::string_view id);
    void beginRun(const XmlAttributes& attributes);

    RunCollector& m_collector;
    const std::stop_token m_stop;
    SpectrumReader m_spectrum;
    InstrumentReader m_instruments;
    Place m_place = Place::Elsewhere;
    std::map<std::string, std::vector<Parameter>, std::less<>> m_groups;
    std::vector<Parameter>* m_group = nullptr;
    size_t m_groupBytes = 0;
    bool m_isReadingText = false;
};

void DocumentHandler::startElement(std::string_view name, const XmlAttributes& attributes) {
    if (name == "cvParam")
        return parameter(viewOf(attributes));
    if (name == "referenceableParamGroupRef")
        return useGroup(attributes.value("ref"));
    if (m_place == Place::Spectrum)
        return startInSpectrum(name);
    if (name == "spectrum") {
        m_place = Place::Spectrum;
        m_spectrum.begin();
    } else if (name == "spectrumList") {
        if (const auto count = wholeNumber(attributes.value("count")))
            m_collector.addDeclaredCount(*count);
    } else if (name == "referenceableParamGroup") {
        m_place = Place::Group;
        m_groupBytes += attributes.value("id").size();
        m_group = &m_groups[std::string(attributes.value("id"))];
    } else if (name == "instrumentConfiguration") {
        m_place = Place::Instrument;
        m_instruments.begin(attributes.value("id"));
    } else if (name == "componentList" && m_place == Place::Instrument) {
        m_place = Place::Component;
    } else if (name == "run") {
        beginRun(attributes);
    }
}

void DocumentHandler::startInSpectrum(std::string_view name) {
    if (name == "binary") {
        m_isReadingText = m_spectrum.beginText();
        parser->wantText(m_isReadingText);
    } else if (name == "binaryDataArray") {
        m_spectrum.beginArray();
    } else if (name == "scan") {
        m_spectrum.beginScan();
    } else if (name == "scanWindow") {
        m_spectrum.beginWindow();
    }
}

void DocumentHandler::endElement(std::string_view name) {
    if (name == "cvParam")
        return;
    if (name == "binary" && m_isReadingText) {
        parser->wantText(false);
        m_isReadingText = false;
        m_spectrum.endText();
    } else if (name == "binaryDataArray" && m_place == Place::Spectrum) {
        if (const Error error = m_spectrum.endArray(m_stop); error.hasError())
            parser->stop(error);
    } else if (name == "scanWindow") {
        m_spectrum.endWindow();
    } else if (name == "spectrum" && m_place == Place::Spectrum) {
        m_place = Place::Elsewhere;
        m_spectrum.end();
    } else if (name == "componentList" && m_place == Place::Component) {
        m_place = Place::Instrument;
    } else if (name == "instrumentConfiguration" && m_place == Place::Instrument) {
        m_place = Place::Elsewhere;
        m_instruments.end();
    } else if (name == "referenceableParamGroup" && m_place == Place::Group) {
        m_place = Place::Elsewhere;
        m_group = nullptr;
    }
}

void DocumentHandler::parameter(const ParameterView& parameter) {
    if (m_place == Place::Spectrum)
        m_spectrum.parameter(parameter);
    else if (m_place == Place::Instrument)
        m_instruments.parameter(parameter);
    else if (m_place == Place::Group)
        keep(parameter);
}

void DocumentHandler::keep(const ParameterView& parameter) {
    m_group->push_back({parameter.vocabulary, parameter.term, std::string(parameter.name),
                        std::string(parameter.value), std::string(parameter.unit)});
    m_groupBytes += m_group->back().bytes();
    if (m_groupBytes > kMostGroupBytes)
        parser->stop(Error(ErrorCode::ParseError, msText("Its parameter groups are too large.")));
}

void DocumentHandler::useGroup(std::string_view id) {
    // A group that refers to groups is none that the format knows.
    if (m_place == Place::Group)
        return;
    const auto group = m_groups.find(id);
    if (group == m_groups.end())
        return;
    for (const Parameter& each : group->second)
        parameter({each.vocabulary, each.term, each.name, each.value, each.unit});
}

void DocumentHandler::beginRun(const XmlAttributes& attributes) {
    m_collector.setInstrument(m_instruments.model(attributes.value("defaultInstrumentConfigurationRef")));
    m_collector.setStartTime(shortText(attributes.value("startTimeStamp")));
}

} // namespace

Result<RunSummary> summariseMzMl(ByteStream& document, const ReadOnlyFile* companion,
                                 const std::stop_token& stop) {
    RunCollector collector(companion ? MsDataKind::ImzMl : MsDataKind::MzMl);
    std::optional<ExternalArrays> external;
    if (companion)
        external.emplace(*companion);
    DocumentHandler handler(collector, external ? &*external : nullptr, stop);
    XmlParser parser(handler);
    handler.parser = &parser;
    ORX_RETURN_ON_ERROR(parser.parse(document, stop));
    return collector.build();
}

} // namespace orx
