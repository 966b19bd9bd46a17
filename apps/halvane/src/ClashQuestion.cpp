#include "ClashQuestion.h"

#include "Interruption.h"
#include "Output.h"
#include "ProgressReport.h"
#include "QuestionText.h"

#include <errno.h>
#include <unistd.h>

namespace halvane::cli {

using host::Clash;
using host::ClashAnswer;
using Choice = host::ClashAnswer::Choice;

namespace {

const char* choices = "[o]verwrite, [s]kip, [r]ename, [q]uit (O, S, R: also for all others)? ";

// Empty at the end of the input and when a signal came.
std::optional<QByteArray> readLine() {
    QByteArray line;
    for (;;) {
        if (!Interruption::waitForInput(STDIN_FILENO))
            return std::nullopt;
        char byte = 0;
        const ssize_t count = ::read(STDIN_FILENO, &byte, 1);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return std::nullopt;
        if (byte == '\n')
            return line;
        line.append(byte);
    }
}

std::optional<ClashAnswer> parseAnswer(const QByteArray& line) {
    const QByteArray word = line.trimmed();
    if (word.size() != 1)
        return std::nullopt;
    switch (word.front()) {
    case 'o':
    case 'O':
        return ClashAnswer{Choice::Overwrite, word == "O"};
    case 's':
    case 'S':
        return ClashAnswer{Choice::Skip, word == "S"};
    case 'r':
    case 'R':
        return ClashAnswer{Choice::Rename, word == "R"};
    case 'q':
    case 'Q':
        return ClashAnswer{Choice::Quit, false};
    default:
        return std::nullopt;
    }
}

QString sizeOf(const QFileInfo& file) {
    if (file.isSymLink())
        return QStringLiteral("a link");
    return file.isDir() ? QStringLiteral("a directory") : bytesText(file.size());
}

QString originOf(const Clash& clash) {
    if (!clash.madeBy.isEmpty())
        return QStringLiteral("%1 of this download").arg(clash.madeBy);
    if (clash.existingVersion)
        return QStringLiteral("file:%1@%2 when it came here")
            .arg(QString::number(clash.item.id), QString::number(*clash.existingVersion));
    return QStringLiteral("not known to be a version of it");
}

QString described(const Clash& clash, const Output& output) {
    const QDateTime time =
        clash.item.sourceModifiedAt.isValid() ? clash.item.sourceModifiedAt : clash.item.modifiedAt;
    QString text = QStringLiteral("\"%1\" is there already, with another content:\n")
                       .arg(output.shown(clash.existing.absoluteFilePath()));
    text +=
        QuestionText::side("here", sizeOf(clash.existing), clash.existing.lastModified(), originOf(clash));
    text += QuestionText::side("to come", bytesText(clash.item.size), time, clash.item.reference());
    return text;
}

} // namespace

host::ClashAnswerer::Question clashQuestion(const Output& output, ProgressReport& progress) {
    if (!::isatty(STDIN_FILENO) || !::isatty(STDERR_FILENO))
        return {};
    return [&output, &progress](const Clash& clash) {
        progress.hide();
        QuestionText::print(described(clash, output));
        for (;;) {
            QuestionText::print(QString::fromLatin1(choices));
            const auto line = readLine();
            if (!line) {
                QuestionText::print(QStringLiteral("\n"));
                return ClashAnswer{Choice::Quit, false};
            }
            if (const auto answer = parseAnswer(*line))
                return *answer;
        }
    };
}

} // namespace halvane::cli
