#include "UploadQuestion.h"

#include "Output.h"
#include "ProgressReport.h"
#include "QuestionText.h"
#include "TextForms.h"

#include <QFileInfo>

namespace halvane::cli {

using host::UploadPolicy;
using orx::DuplicateUploadAnswer;
using Scope = UploadPolicy::Scope;

namespace {

const char* choices = "[n]ew version, [k]eep both, [s]kip, [q]uit (N, K, S: also for all others)? ";

QString described(const QString& localPath, const host::RemoteItem& existing, const Output& output) {
    const QFileInfo local(localPath);
    const QDateTime time =
        existing.sourceModifiedAt.isValid() ? existing.sourceModifiedAt : existing.modifiedAt;
    QString text = QStringLiteral("\"%1\": the folder has a file of that name, with another content:\n")
                       .arg(output.shown(localPath));
    text +=
        QuestionText::side("here", local.isDir() ? QStringLiteral("a directory") : bytesText(local.size()),
                           local.lastModified(), QString());
    text += QuestionText::side("on server", bytesText(existing.size), time, existing.reference());
    return text;
}

} // namespace

UploadQuestion::UploadQuestion(host::UploadPolicy& policy, const Output& output, ProgressReport& progress,
                               std::function<void()> quit)
    : m_policy(policy), m_output(output), m_progress(progress), m_quit(std::move(quit)) {
    connect(&m_policy, &UploadPolicy::asked, this, &UploadQuestion::ask);
    connect(&m_policy, &UploadPolicy::withdrawn, this, [this] {
        if (m_line.isReading())
            QuestionText::print(QStringLiteral("\n"));
        end();
    });
    connect(&m_line, &TerminalLine::read, this, [this](const QByteArray& line) { answer(line.trimmed()); });
    connect(&m_line, &TerminalLine::ended, this, [this] {
        QuestionText::print(QStringLiteral("\n"));
        end();
        m_quit();
    });
}

UploadQuestion::~UploadQuestion() = default;

void UploadQuestion::ask(const QString& localPath, const host::RemoteItem& existing) {
    m_progress.setPaused(true);
    m_line.start();
    QuestionText::print(described(localPath, existing, m_output) + QString::fromLatin1(choices));
}

void UploadQuestion::answer(const QByteArray& word) {
    const char letter = word.size() == 1 ? word.front() : '?';
    const Scope scope = letter >= 'A' && letter <= 'Z' ? Scope::All : Scope::ThisOne;
    DuplicateUploadAnswer given = DuplicateUploadAnswer::Skip;
    switch (letter) {
    case 'n':
    case 'N':
        given = DuplicateUploadAnswer::NewVersion;
        break;
    case 'k':
    case 'K':
        given = DuplicateUploadAnswer::KeepBoth;
        break;
    case 's':
    case 'S':
        break;
    case 'q':
    case 'Q':
        end();
        return m_quit();
    default:
        return QuestionText::print(QString::fromLatin1(choices));
    }
    end();
    m_policy.answer(given, scope);
}

void UploadQuestion::end() {
    m_line.stop();
    m_progress.setPaused(false);
}

} // namespace halvane::cli
