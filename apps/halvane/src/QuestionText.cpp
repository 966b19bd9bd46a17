#include "QuestionText.h"

#include "TextForms.h"

#include <cstdio>

namespace halvane::cli {

void QuestionText::print(const QString& text) {
    std::fputs(text.toUtf8().constData(), stderr);
    std::fflush(stderr);
}

QString QuestionText::side(const char* name, const QString& size, const QDateTime& time,
                           const QString& what) {
    return QStringLiteral("  %1  %2  %3  %4\n")
        .arg(QString::fromLatin1(name).leftJustified(9), size.rightJustified(10), timeText(time), what);
}

} // namespace halvane::cli
