#include "ClashQuestion.h"

#include "Output.h"
#include "ProgressReport.h"
#include "QuestionText.h"
#include "TextForms.h"

namespace halvane::cli {

using host::Clash;
using host::ClashAnswer;
using Choice = host::ClashAnswer::Choice;

namespace {

const char* choices = "[o]verwrite, [s]kip, [r]ename, [q]uit (O, S, R: also for all others)? ";

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

ClashQuestion::ClashQuestion(host::ClashAnswerer& answerer, const Output& output, ProgressReport& progress)
    : m_answerer(answerer), m_output(output), m_progress(progress) {
    connect(&m_answerer, &host::ClashAnswerer::asked, this, &ClashQuestion::ask);
    connect(&m_answerer, &host::ClashAnswerer::withdrawn, this, [this] {
        if (m_line.isReading())
            QuestionText::print(QStringLiteral("\n"));
        m_line.stop();
        m_progress.setPaused(false);
    });
    connect(&m_line, &TerminalLine::read, this, &ClashQuestion::onLine);
    connect(&m_line, &TerminalLine::ended, this, [this] {
        QuestionText::print(QStringLiteral("\n"));
        answer({Choice::Quit, false});
    });
}

ClashQuestion::~ClashQuestion() = default;

void ClashQuestion::ask(const Clash& clash) {
    m_progress.setPaused(true);
    m_line.start();
    QuestionText::print(described(clash, m_output) + QString::fromLatin1(choices));
}

void ClashQuestion::onLine(const QByteArray& line) {
    if (const auto given = parseAnswer(line))
        answer(*given);
    else
        QuestionText::print(QString::fromLatin1(choices));
}

void ClashQuestion::answer(const ClashAnswer& answer) {
    m_line.stop();
    m_progress.setPaused(false);
    m_answerer.answer(answer);
}

} // namespace halvane::cli
