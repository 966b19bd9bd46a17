#pragma once

#include "MsProbe.h"

#include <Result.h>

#include <QByteArray>
#include <QString>

#include <vector>

namespace orx {

class ByteStream;

//! Up to \a size of the next bytes of a stream; fewer at the end and where the rest cannot be read.
Result<QByteArray> readHead(ByteStream& stream, qsizetype size);

//! 01 A1, then at least eight bytes of UTF-16 text, low byte first.
bool isTaggedBinary(QByteArrayView head);
//! The leading bytes of the container that holds several streams in one file.
bool isCompoundDocument(QByteArrayView head);
//! The leading bytes of an SQLite database.
bool isDatabase(QByteArrayView head);
//! Whether the first line of a text that is no comment and no "KEY=value" is "BEGIN IONS"; reads at most 64
//! KiB.
bool isMgf(ByteStream& stream);
//! Whether 16 \a bytes are the identifier of 32 hexadecimal digits, in the order of the digits or in the one
//! with the first three groups reversed, since there are writers of both.
bool isUuid(const QByteArray& bytes, const QByteArray& digits);

struct CompanionSearch {
    QString path; //!< absolute; empty: there is no such regular file
    qint64 size = 0;
};

//! The regular file \a path, whatever the case of the letters of its name. Adds what was looked at.
CompanionSearch findFile(const QString& path, std::vector<MsProbe::Witness>& witnesses);

} // namespace orx
