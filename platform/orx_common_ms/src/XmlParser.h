#pragma once

#include "orx_common_ms_export.h"

#include <Error.h>

#include <memory>
#include <stop_token>
#include <string_view>

namespace orx {

class ByteStream;

//! The attributes of an element, valid within the call that hands them over.
class XmlAttributes {
public:
    explicit XmlAttributes(const char** pairs) : m_pairs(pairs) {}
    //! Empty when there is none of that name.
    ORX_COMMON_MS_EXPORT std::string_view value(std::string_view name) const;
    ORX_COMMON_MS_EXPORT bool has(std::string_view name) const;

private:
    const char** m_pairs; // name, value, name, value ... null
};

//! Reads an XML document that nobody vouches for, piece by piece: at most a few MiB of memory whatever the
//! document holds, no entities but the predefined ones, no external resources. Encodings: UTF-8, UTF-16,
//! ISO-8859-1 and single-byte ones that extend ASCII, whose other characters become U+FFFD.
class ORX_COMMON_MS_EXPORT XmlParser {
public:
    //! Names come without their prefix. All text is UTF-8.
    class Handler {
    public:
        virtual ~Handler();
        virtual void startElement(std::string_view name, const XmlAttributes& attributes) = 0;
        virtual void endElement(std::string_view name) = 0;
        //! A piece of text, while wantText() is on.
        virtual void text(std::string_view piece);
    };

    //! \a handler outlives the parser.
    explicit XmlParser(Handler& handler);
    ~XmlParser();
    Q_DISABLE_COPY_MOVE(XmlParser)

    //! Off at first: text that nobody wants costs less.
    void wantText(bool isWanted);
    //! For handlers: ends parse() with \a reason, which may be no error; nothing more is handed over.
    void stop(const Error& reason);

    //! Hands the whole document to the handler. ParseError when it is not well-formed or exceeds a limit; the
    //! stream's own errors; Canceled soon after \a token was asked to stop. Once only. \a longest: bytes
    //! after which the call ends without error, 0: none. \a piece: bytes read at a time.
    Error parse(ByteStream& stream, const std::stop_token& token, qint64 longest = 0, int piece = 64 * 1024);

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
