#include "XmlParser.h"

#include "ByteStream.h"
#include "Texts.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>

#include <expat.h>

namespace orx {

namespace {

// Expat keeps a whole tag or comment in memory, and the names of all open elements.
constexpr size_t kMostMemory = 4 * 1024 * 1024;

struct alignas(std::max_align_t) Block {
    size_t size;
};

// Expat's allocation functions are told no parser. A parser lives on one thread.
thread_local size_t usedMemory = 0;

void* allocate(size_t size) {
    if (size > kMostMemory || usedMemory + size > kMostMemory)
        return nullptr;
    auto* block = static_cast<Block*>(std::malloc(sizeof(Block) + size));
    if (!block)
        return nullptr;
    block->size = size;
    usedMemory += size;
    return block + 1;
}

void release(void* memory) {
    if (!memory)
        return;
    Block* block = static_cast<Block*>(memory) - 1;
    usedMemory -= block->size;
    std::free(block);
}

void* reallocate(void* memory, size_t size) {
    if (!memory)
        return allocate(size);
    Block* block = static_cast<Block*>(memory) - 1;
    const size_t before = block->size;
    if (size > kMostMemory || usedMemory - before + size > kMostMemory)
        return nullptr;
    auto* moved = static_cast<Block*>(std::realloc(block, sizeof(Block) + size));
    if (!moved)
        return nullptr;
    usedMemory += size - before;
    moved->size = size;
    return moved + 1;
}

std::string_view localName(const char* name) {
    const std::string_view whole(name);
    const size_t colon = whole.find(':');
    return colon == std::string_view::npos ? whole : whole.substr(colon + 1);
}

//! Every encoding that is not built in is taken for one that extends ASCII by single bytes.
int describeEncoding(void*, const XML_Char*, XML_Encoding* encoding) {
    constexpr int kReplacementCharacter = 0xFFFD;
    for (int byte = 0; byte < 256; ++byte)
        encoding->map[byte] = byte < 0x80 ? byte : kReplacementCharacter;
    encoding->data = nullptr;
    encoding->convert = nullptr;
    encoding->release = nullptr;
    return XML_STATUS_OK;
}

} // namespace

std::string_view XmlAttributes::value(std::string_view name) const {
    for (const char** pair = m_pairs; *pair; pair += 2) {
        if (name == *pair)
            return pair[1];
    }
    return {};
}

bool XmlAttributes::has(std::string_view name) const {
    for (const char** pair = m_pairs; *pair; pair += 2) {
        if (name == *pair)
            return true;
    }
    return false;
}

XmlParser::Handler::~Handler() = default;

void XmlParser::Handler::text(std::string_view) {}

struct XmlParser::Private {
    explicit Private(Handler& to) : handler(to) {}

    Handler& handler;
    XML_Parser parser = nullptr;
    bool isStopped = false;
    Error reason;

    Error failure() const;

    static Private& of(void* self) { return *static_cast<Private*>(self); }
    static void onStart(void* self, const XML_Char* name, const XML_Char** attributes) {
        if (!of(self).isStopped)
            of(self).handler.startElement(localName(name), XmlAttributes(attributes));
    }
    static void onEnd(void* self, const XML_Char* name) {
        if (!of(self).isStopped)
            of(self).handler.endElement(localName(name));
    }
    static void onText(void* self, const XML_Char* text, int size) {
        if (!of(self).isStopped)
            of(self).handler.text({text, size_t(size)});
    }
    static void onEntity(void* self, const XML_Char*, int, const XML_Char*, int, const XML_Char*,
                         const XML_Char*, const XML_Char*, const XML_Char*) {
        of(self).halt(
            Error(ErrorCode::ParseError, msText("It declares XML entities, which raw data has no use for.")));
    }
    void halt(const Error& why) {
        if (isStopped)
            return;
        isStopped = true;
        reason = why;
        XML_StopParser(parser, XML_FALSE);
    }
};

XmlParser::XmlParser(Handler& handler) : d(std::make_unique<Private>(handler)) {
    const XML_Memory_Handling_Suite memory{allocate, reallocate, release};
    d->parser = XML_ParserCreate_MM(nullptr, &memory, nullptr);
    if (!d->parser)
        return;
    XML_SetUserData(d->parser, d.get());
    XML_SetElementHandler(d->parser, &Private::onStart, &Private::onEnd);
    XML_SetEntityDeclHandler(d->parser, &Private::onEntity);
    XML_SetUnknownEncodingHandler(d->parser, describeEncoding, nullptr);
}

XmlParser::~XmlParser() {
    if (d->parser)
        XML_ParserFree(d->parser);
}

void XmlParser::wantText(bool isWanted) {
    XML_SetCharacterDataHandler(d->parser, isWanted ? &Private::onText : nullptr);
}

void XmlParser::stop(const Error& reason) {
    d->halt(reason);
}

Error XmlParser::Private::failure() const {
    const XML_Error code = XML_GetErrorCode(parser);
    if (code == XML_ERROR_NO_MEMORY)
        return Error(ErrorCode::ParseError,
                     msText("A tag, a comment or the nesting of its XML is too large, near line %1.")
                         .arg(XML_GetCurrentLineNumber(parser)));
    return Error(ErrorCode::ParseError, msText("Its XML is damaged in line %1: %2.")
                                            .arg(QString::number(XML_GetCurrentLineNumber(parser)),
                                                 QString::fromUtf8(XML_ErrorString(code))));
}

Error XmlParser::parse(ByteStream& stream, const std::stop_token& token, qint64 longest, int piece) {
    if (!d->parser)
        return Error(ErrorCode::General, msText("There is not enough memory to read XML."));
    for (qint64 read = 0; !d->isStopped && (longest == 0 || read < longest);) {
        if (token.stop_requested())
            return Error(ErrorCode::Canceled, msText("Canceled."));
        void* buffer = XML_GetBuffer(d->parser, piece);
        if (!buffer)
            return d->failure();
        const auto count = stream.read(static_cast<char*>(buffer), piece);
        if (count.hasError())
            return count.error();
        const bool isLast = *count == 0;
        if (XML_ParseBuffer(d->parser, int(*count), isLast) != XML_STATUS_OK && !d->isStopped)
            return d->failure();
        if (isLast)
            break;
        read += *count;
    }
    return d->reason;
}

} // namespace orx
