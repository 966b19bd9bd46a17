#include "MzMlSpectrum.h"

#include "ExternalArrays.h"
#include "TextNumbers.h"
#include "XmlParser.h"

namespace orx {

namespace {

// Terms of the vocabulary, by their numbers.
namespace Ms {
constexpr int kScanStartTime = 1000016;
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
constexpr int kZlib = 1000574;
constexpr int kNoCompression = 1000576;
constexpr int kMs1Spectrum = 1000579;
} // namespace Ms
namespace Ims {
constexpr int kExternalOffset = 1000102;
constexpr int kExternalCount = 1000103;
constexpr int kExternalLength = 1000104;
} // namespace Ims

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

} // namespace

ParameterView parameterOf(const XmlAttributes& attributes) {
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

void MzMlSpectrum::begin() {
    m_facts = {};
    m_lowest = m_highest = m_windowLow = m_windowHigh = std::nullopt;
    m_decodedMz = std::nullopt;
    m_decodedSum = m_decodedPeak = std::nullopt;
    m_scans = 0;
    m_isTimeWithoutUnit = false;
}

void MzMlSpectrum::end() {
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

void MzMlSpectrum::scanStartTime(const ParameterView& parameter) {
    // Of spectra that are made of several scans, the first one's counts.
    if (m_facts.time || m_scans > 1)
        return;
    const auto value = finiteNumber(parameter.value);
    const auto seconds = secondsPer(parameter.unit);
    m_isTimeWithoutUnit = value && !seconds;
    if (value && seconds)
        m_facts.time = *value * *seconds;
}

void MzMlSpectrum::parameter(const ParameterView& parameter) {
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

void MzMlSpectrum::arrayParameter(const ParameterView& parameter) {
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

void MzMlSpectrum::externalParameter(const ParameterView& parameter) {
    if (parameter.term == Ims::kExternalOffset)
        m_externalOffset = wholeNumber(parameter.value);
    else if (parameter.term == Ims::kExternalLength)
        m_externalLength = wholeNumber(parameter.value);
    else if (parameter.term == Ims::kExternalCount)
        m_externalCount = wholeNumber(parameter.value);
}

void MzMlSpectrum::endWindow() {
    if (const auto window = rangeOf(m_windowLow, m_windowHigh)) {
        ValueRange::extend(m_facts.scanWindow, window->lowest);
        ValueRange::extend(m_facts.scanWindow, window->highest);
    }
}

void MzMlSpectrum::beginArray() {
    m_array = Array::Other;
    m_format = {};
    m_externalOffset = m_externalLength = m_externalCount = std::nullopt;
}

//! The m/z array is read where it must stand in for what the file does not state.
bool MzMlSpectrum::isWanted() const {
    if (m_array == Array::Intensity)
        return !isIonCurrentStated();
    if (m_array == Array::Mz)
        return !rangeOf(m_lowest, m_highest) && (!isIonCurrentStated() || !m_facts.scanWindow);
    return false;
}

bool MzMlSpectrum::beginText() {
    const bool isElsewhere = m_externalOffset && m_external;
    if (isElsewhere || !isWanted())
        return false;
    m_reader.begin(m_format);
    return true;
}

void MzMlSpectrum::endText() {
    const Error error = m_reader.end();
    take(error, m_reader.figures(0));
}

//! In bytes; -1 when the document tells neither that nor, of an array that is not compressed, its count.
qint64 MzMlSpectrum::externalLength() const {
    if (m_externalLength)
        return *m_externalLength;
    const qint64 count = m_externalCount.value_or(-1);
    const bool isPlain = m_format.compression == ArrayFormat::Compression::None;
    return isPlain && count >= 0 && count < (qint64(1) << 48) ? count * m_format.bytesPerNumber() : -1;
}

Error MzMlSpectrum::endArray(const std::stop_token& stop) {
    if (!m_externalOffset || !m_external || !isWanted())
        return Error();
    const auto figures = m_external->read(*m_externalOffset, externalLength(), m_format, stop);
    if (figures.hasError() && figures.error().isCanceled())
        return figures.error();
    take(figures.error(), figures.hasError() ? ArrayReader::Figures() : *figures);
    return Error();
}

void MzMlSpectrum::take(const Error& error, const ArrayReader::Figures& figures) {
    if (error.hasError())
        return m_collector.addUnreadableArray(error.errorMessage());
    if (m_array == Array::Mz) {
        m_decodedMz = figures.range;
        return;
    }
    m_decodedSum = figures.sum;
    m_decodedPeak = figures.range ? figures.range->highest : 0;
}

} // namespace orx
