#pragma once

#include "ArrayReader.h"
#include "RunCollector.h"

#include <Error.h>

#include <optional>
#include <stop_token>
#include <string_view>

namespace orx {

class ExternalArrays;
class XmlAttributes;

enum class Vocabulary { Other, Ms, Ims };

//! What a view points at lives as long as the call that hands it over.
struct ParameterView {
    Vocabulary vocabulary = Vocabulary::Other;
    int term = 0;
    std::string_view name;
    std::string_view value;
    std::string_view unit;
};

//! The parameter that the attributes of a cvParam element are.
ParameterView parameterOf(const XmlAttributes& attributes);

//! Keeps what the parameters and arrays of one spectrum say, until it ends.
class MzMlSpectrum {
public:
    //! \a external: null where arrays stand in the document itself. Both outlive this.
    MzMlSpectrum(RunCollector& collector, ExternalArrays* external)
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
    //! Reads the array where it stands elsewhere. Only cancelling is an error.
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

} // namespace orx
