#include "ProbeParts.h"

#include "ByteStream.h"
#include "DirectoryNames.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>

namespace orx {

namespace {

CompanionSearch lookAt(const QByteArray& path, std::vector<MsProbe::Witness>& witnesses) {
    const auto stamp = FileStamp::of(path);
    witnesses.push_back({path, stamp});
    if (!stamp || !stamp->isFile())
        return {};
    return {QFile::decodeName(path), stamp->size};
}

enum class Verdict { Yes, No, Undecided };

bool isParameter(QByteArrayView line) {
    const qsizetype equals = QByteArray::fromRawData(line.data(), line.size()).indexOf('=');
    if (equals < 1)
        return false;
    return std::all_of(line.begin(), line.begin() + equals, [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
               c == '[' || c == ']';
    });
}

Verdict verdictOfLine(QByteArrayView line) {
    line = line.trimmed();
    if (line.isEmpty() || QByteArrayView("#;!/").contains(line.front()) || isParameter(line))
        return Verdict::Undecided;
    return line == QByteArrayView("BEGIN IONS") ? Verdict::Yes : Verdict::No;
}

//! Takes the whole lines off the front of \a text, the last one too when it \a isAll.
Verdict verdictOfLines(QByteArray& text, bool isAll) {
    qsizetype begin = 0;
    Verdict verdict = Verdict::Undecided;
    while (verdict == Verdict::Undecided && begin < text.size()) {
        qsizetype end = text.indexOf('\n', begin);
        if (end < 0 && !isAll)
            break;
        end = end < 0 ? text.size() : end;
        verdict = verdictOfLine(QByteArrayView(text).sliced(begin, end - begin));
        begin = qMin(end + 1, text.size());
    }
    text.remove(0, begin);
    return verdict;
}

} // namespace

bool isMgf(ByteStream& stream) {
    constexpr qsizetype kPiece = 4096;
    constexpr qsizetype kLongestHead = 64 * 1024;
    QByteArray text;
    for (qsizetype read = 0; read < kLongestHead; read += kPiece) {
        const auto piece = readHead(stream, kPiece);
        if (piece.hasError() || piece->contains('\0'))
            return false;
        text += *piece;
        if (read == 0 && text.startsWith("\xef\xbb\xbf"))
            text.remove(0, 3);
        const Verdict verdict = verdictOfLines(text, piece->size() < kPiece);
        if (verdict != Verdict::Undecided)
            return verdict == Verdict::Yes;
        if (piece->size() < kPiece)
            return false;
    }
    return false;
}

Result<QByteArray> readHead(ByteStream& stream, qsizetype size) {
    QByteArray head(size, Qt::Uninitialized);
    qsizetype filled = 0;
    while (filled < size) {
        const auto count = stream.read(head.data() + filled, size - filled);
        if (count.hasError() && filled == 0)
            return count.error();
        if (count.hasError() || *count == 0)
            break;
        filled += *count;
    }
    head.truncate(filled);
    return head;
}

bool isTaggedBinary(QByteArrayView head) {
    if (head.size() < 10 || !head.startsWith("\x01\xa1"))
        return false;
    for (qsizetype at = 2; at < 10; at += 2) {
        if (head[at] < ' ' || head[at] > '~' || head[at + 1] != '\0')
            return false;
    }
    return true;
}

bool isCompoundDocument(QByteArrayView head) {
    return head.startsWith("\xd0\xcf\x11\xe0\xa1\xb1\x1a\xe1");
}

bool isDatabase(QByteArrayView head) {
    return head.startsWith(QByteArrayView("SQLite format 3\0", 16));
}

bool isUuid(const QByteArray& bytes, const QByteArray& digits) {
    const QByteArray plain = QByteArray::fromHex(digits);
    QByteArray mixed = plain;
    for (const auto& [first, last] : {std::pair(0, 4), std::pair(4, 6), std::pair(6, 8)})
        std::reverse(mixed.begin() + first, mixed.begin() + last);
    return bytes == plain || bytes == mixed;
}

CompanionSearch findFile(const QString& path, std::vector<MsProbe::Witness>& witnesses) {
    if (const CompanionSearch exact = lookAt(QFile::encodeName(path), witnesses); !exact.path.isEmpty())
        return exact;
    const QFileInfo info(path);
    const QByteArray directory = QFile::encodeName(info.absolutePath());
    witnesses.push_back({directory, FileStamp::of(directory)});
    const auto names = DirectoryNames::of(directory);
    if (!names)
        return {};
    for (const QByteArray& name : names->find(info.fileName())) {
        if (const CompanionSearch found = lookAt(directory + '/' + name, witnesses); !found.path.isEmpty())
            return found;
    }
    return {};
}

} // namespace orx
