#include "FileUtilsGeneric.h"

namespace orx {

namespace {

bool isControl(QChar c) {
    return c.unicode() < 0x20 || (c.unicode() >= 0x7f && c.unicode() < 0xa0);
}

//! Of characters below the surrogates' range and above it.
bool mayStand(QChar c) {
    static const QString forbidden = QStringLiteral("/\\:*?\"<>|");
    return !isControl(c) && !c.isSurrogate() && !forbidden.contains(c);
}

bool mayStandLast(QChar c) {
    return c != u'.' && c != u' ';
}

bool isPairAt(const QString& text, qsizetype i) {
    return i + 1 < text.size() && text[i].isHighSurrogate() && text[i + 1].isLowSurrogate();
}

int bytesOf(QChar c) {
    return c.unicode() < 0x80 ? 1 : c.unicode() < 0x800 ? 2 : 3;
}

//! The longest start of valid text \a name that has at most \a limit bytes in UTF-8.
QString cutToBytes(const QString& name, int limit) {
    int bytes = 0;
    qsizetype i = 0;
    while (i < name.size()) {
        const bool pair = isPairAt(name, i);
        bytes += pair ? 4 : bytesOf(name[i]);
        if (bytes > limit)
            break;
        i += pair ? 2 : 1;
    }
    return name.left(i);
}

} // namespace

bool FileUtilsGeneric::isValidFileName(const QString& name) {
    if (name.isEmpty() || !mayStandLast(name.back()) || name.toUtf8().size() > MAX_NAME_BYTES)
        return false; // "." and ".." end with a dot
    for (qsizetype i = 0; i < name.size(); ++i) {
        if (isPairAt(name, i))
            ++i;
        else if (!mayStand(name[i]))
            return false;
    }
    return true;
}

QString FileUtilsGeneric::validFileName(const QString& name, QChar replacement) {
    if (isValidFileName(name))
        return name;
    const QChar filler = mayStand(replacement) && mayStandLast(replacement) ? replacement : QChar(u'_');
    QString result;
    result.reserve(name.size());
    for (qsizetype i = 0; i < name.size(); ++i) {
        if (isPairAt(name, i)) {
            result += name[i];
            result += name[++i];
        } else {
            result += mayStand(name[i]) ? name[i] : filler;
        }
    }
    if (result.isEmpty())
        return filler;
    result = cutToBytes(result, MAX_NAME_BYTES);
    if (mayStandLast(result.back()))
        return result;
    result.chop(1); // the filler may need more bytes than the dot or blank that it replaces
    return cutToBytes(result, MAX_NAME_BYTES - bytesOf(filler)) + filler;
}

} // namespace orx
