#include "ArgumentTexts.h"

#include <QStringDecoder>

namespace halvane::cli {

void require(const orx::Error& error) {
    if (error.hasError())
        throw UsageError{error.errorMessage()};
}

QString textOf(const std::string& argument, const char* what) {
    QStringDecoder decoder(QStringDecoder::Utf8);
    const QString text = decoder.decode(QByteArrayView(argument.data(), qsizetype(argument.size())));
    if (decoder.hasError())
        throw UsageError{QStringLiteral("%1 is not valid UTF-8.").arg(QLatin1String(what))};
    return text;
}

QString filledTextOf(const std::string& argument, const char* what) {
    const QString text = textOf(argument, what);
    if (text.isEmpty())
        throw UsageError{QStringLiteral("%1 must not be empty.").arg(QLatin1String(what))};
    return text;
}

} // namespace halvane::cli
