#include "XmlHead.h"

#include "ByteStream.h"
#include "XmlParser.h"

namespace orx {

namespace {

constexpr qint64 kLongestHead = 256 * 1024;
constexpr int kPiece = 4096;

QByteArray hexDigits(std::string_view text) {
    QByteArray digits;
    for (const char c : text) {
        const char lower = c >= 'A' && c <= 'F' ? char(c - 'A' + 'a') : c;
        if ((lower >= '0' && lower <= '9') || (lower >= 'a' && lower <= 'f'))
            digits.append(lower);
    }
    return digits.size() == 32 ? digits : QByteArray();
}

class HeadHandler final : public XmlParser::Handler {
public:
    XmlHead head;
    XmlParser* parser = nullptr;

    void startElement(std::string_view name, const XmlAttributes& attributes) override {
        if (head.rootName.isEmpty())
            readRoot(name, attributes);
        else if (name == "fileDescription")
            m_isInDescription = true;
        else if (name == "run" || name == "spectrumList")
            parser->stop(Error());
        else if (name == "cvParam" && m_isInDescription)
            readParameter(attributes);
    }

    void endElement(std::string_view name) override {
        if (name == "fileDescription")
            parser->stop(Error());
    }

private:
    void readRoot(std::string_view name, const XmlAttributes& attributes) {
        head.rootName = QByteArray(name.data(), qsizetype(name.size()));
        if (name == "mzML" || name == "indexedmzML") {
            head.kind = MsDataKind::MzMl;
            return;
        }
        // The first version of the format had no element around its run.
        if (name == "mzXML" || (name == "msRun" && attributes.has("scanCount")))
            head.kind = MsDataKind::MzXml;
        parser->stop(Error());
    }

    void readParameter(const XmlAttributes& attributes) {
        const std::string_view accession = attributes.value("accession");
        if (accession.substr(0, 4) != "IMS:")
            return;
        head.kind = MsDataKind::ImzMl;
        if (accession == "IMS:1000080")
            head.uuid = hexDigits(attributes.value("value"));
    }

    bool m_isInDescription = false;
};

} // namespace

XmlHead readXmlHead(ByteStream& stream) {
    HeadHandler handler;
    XmlParser parser(handler);
    handler.parser = &parser;
    const Error error = parser.parse(stream, {}, kLongestHead, kPiece);
    if (error.hasError())
        handler.head.damage = error.errorMessage();
    return handler.head;
}

} // namespace orx
