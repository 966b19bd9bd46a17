#pragma once

#include <MsDataCheck.h>

#include <QString>

namespace orx {

class ByteStream;

//! What the beginning of an XML document says of it.
struct XmlHead {
    MsDataKind kind = MsDataKind::None; //!< MzMl, ImzMl, MzXml or None
    QByteArray rootName;                //!< without prefix
    QByteArray uuid;                    //!< of an ImzMl: 32 lower-case hexadecimal digits, or empty
    QString damage;                     //!< empty, or why the head cannot be read to its end
};

//! Reads no further than the file description, and at most 256 KiB.
XmlHead readXmlHead(ByteStream& stream);

} // namespace orx
