#include "TarStream.h"

#include <numeric>

namespace orx::vonk {

namespace {

constexpr qsizetype blockSize = 512;
constexpr qsizetype longestName = 100;
constexpr qsizetype longestPrefix = 155;
//! The largest number of eleven octal digits.
constexpr qint64 largestField = 8'589'934'591;

struct UstarName {
    QByteArray name;
    QByteArray prefix;
    bool isWhole = true;
};

bool isAscii(const QByteArray& text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c > 0 && c < 0x7f; });
}

UstarName ustarName(const QByteArray& path) {
    QByteArray ascii = path;
    for (char& c : ascii)
        c = c > 0 && c < 0x7f ? c : '?';
    if (isAscii(path)) {
        if (path.size() <= longestName)
            return {path, {}};
        // The last separator that leaves a name; the slash at the end of a directory is none.
        const qsizetype slash = path.lastIndexOf('/', std::min(longestPrefix, path.size() - 2));
        if (slash > 0 && path.size() - slash - 1 <= longestName)
            return {path.mid(slash + 1), path.left(slash)};
    }
    return {ascii.left(longestName), {}, false};
}

QByteArray paxRecord(const QByteArray& key, const QByteArray& value) {
    // "length key=value\n", where the length counts itself.
    const qsizetype rest = key.size() + value.size() + 3;
    qsizetype length = rest;
    while (QByteArray::number(length).size() + rest != length)
        length = QByteArray::number(length).size() + rest;
    return QByteArray::number(length) + ' ' + key + '=' + value + '\n';
}

void putText(QByteArray& block, qsizetype offset, const QByteArray& text) {
    block.replace(offset, text.size(), text);
}

void putNumber(QByteArray& block, qsizetype offset, int digits, qint64 value) {
    putText(block, offset, QByteArray::number(value, 8).rightJustified(digits, '0'));
}

QByteArray ustarBlock(const UstarName& name, char type, int mode, qint64 size, qint64 seconds) {
    QByteArray block(blockSize, '\0');
    putText(block, 0, name.name);
    putNumber(block, 100, 7, mode);
    putNumber(block, 108, 7, 0);
    putNumber(block, 116, 7, 0);
    putNumber(block, 124, 11, size);
    putNumber(block, 136, 11, seconds);
    block[156] = type;
    putText(block, 257, "ustar");
    putText(block, 263, "00");
    putText(block, 345, name.prefix);
    // The sum is taken with blanks in its own place.
    putText(block, 148, "        ");
    const unsigned sum = std::accumulate(
        block.begin(), block.end(), 0U, [](unsigned s, char c) { return s + static_cast<unsigned char>(c); });
    putNumber(block, 148, 6, sum);
    block[154] = '\0';
    return block;
}

void pad(QByteArray& bytes) {
    bytes.append(tarPadding(bytes.size()), '\0');
}

} // namespace

qint64 tarPadding(qint64 size) {
    return (blockSize - size % blockSize) % blockSize;
}

QByteArray tarHeader(const VonkEntry& entry) {
    const QByteArray path = entry.path.toUtf8() + (entry.isFile() ? "" : "/");
    const UstarName name = ustarName(path);
    const qint64 seconds = entry.modified.seconds;
    const bool secondsFit = seconds >= 0 && seconds <= largestField;
    const bool sizeFits = entry.size <= largestField;
    QByteArray records;
    if (!secondsFit || entry.modified.nanoseconds != 0)
        records += paxRecord("mtime", entry.modified.toString().toUtf8());
    if (!name.isWhole)
        records += paxRecord("path", path);
    if (!sizeFits)
        records += paxRecord("size", QByteArray::number(entry.size));
    QByteArray bytes;
    if (!records.isEmpty()) {
        bytes = ustarBlock({"././@PaxHeader", {}}, 'x', 0644, records.size(), 0) + records;
        pad(bytes);
    }
    return bytes + ustarBlock(name, entry.isFile() ? '0' : '5', entry.isFile() ? 0644 : 0755,
                              sizeFits ? entry.size : 0, secondsFit ? seconds : 0);
}

QByteArray tarHead(const VonkEntry& entry, qint64 sizeBefore) {
    return QByteArray(tarPadding(sizeBefore), '\0') + tarHeader(entry);
}

QByteArray tarEnd(qint64 sizeBefore) {
    return QByteArray(tarPadding(sizeBefore) + 2 * blockSize, '\0');
}

} // namespace orx::vonk
