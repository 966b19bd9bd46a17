#include "SummaryReaders.h"

#include "ByteStream.h"
#include "ExternalArrays.h"
#include "MzMlSpectrum.h"
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
constexpr int kInstrumentModel = 1000031;
constexpr int kCustomisation = 1000032;
constexpr int kSerialNumber = 1000529;

constexpr size_t kMostGroupBytes = 256 * 1024;
constexpr size_t kMostInstruments = 64;

//! One that is kept.
struct Parameter {
    Vocabulary vocabulary = Vocabulary::Other;
    int term = 0;
    std::string name;
    std::string value;
    std::string unit;

    size_t bytes() const { return sizeof(Parameter) + name.size() + value.size() + unit.size(); }
};

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
        if (parameter.term == kSerialNumber || parameter.term == kCustomisation)
            return;
        const bool isGeneric = parameter.term == kInstrumentModel;
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
    MzMlSpectrum m_spectrum;
    InstrumentReader m_instruments;
    Place m_place = Place::Elsewhere;
    std::map<std::string, std::vector<Parameter>, std::less<>> m_groups;
    std::vector<Parameter>* m_group = nullptr;
    size_t m_groupBytes = 0;
    bool m_isReadingText = false;
};

void DocumentHandler::startElement(std::string_view name, const XmlAttributes& attributes) {
    if (name == "cvParam")
        return parameter(parameterOf(attributes));
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
