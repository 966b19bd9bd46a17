#include "UploadQuestion.h"

#include "Output.h"
#include "ProgressReport.h"
#include "QuestionText.h"
#include "TextForms.h"

#include <QFileInfo>

#include <errno.h>
#include <termios.h>
#include <unistd.h>

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
        if (m_input)
            QuestionText::print(QStringLiteral("\n"));
        end();
    });
}

UploadQuestion::~UploadQuestion() = default;

bool UploadQuestion::isPossible() {
    return ::isatty(STDIN_FILENO) && ::isatty(STDERR_FILENO);
}

void UploadQuestion::ask(const QString& localPath, const host::RemoteItem& existing) {
    m_progress.setPaused(true);
    // What was typed before answers no question that had not been seen.
    ::tcflush(STDIN_FILENO, TCIFLUSH);
    QuestionText::print(described(localPath, existing, m_output) + QString::fromLatin1(choices));
    m_line.clear();
    m_input = std::make_unique<QSocketNotifier>(STDIN_FILENO, QSocketNotifier::Read);
    connect(m_input.get(), &QSocketNotifier::activated, this, &UploadQuestion::onReadable);
}

void UploadQuestion::onReadable() {
    char byte = 0;
    const ssize_t count = ::read(STDIN_FILENO, &byte, 1);
    if (count < 0 && errno == EINTR)
        return;
    if (count <= 0) {
        QuestionText::print(QStringLiteral("\n"));
        end();
        return m_quit();
    }
    if (byte != '\n') {
        m_line.append(byte);
        return;
    }
    answer(std::exchange(m_line, {}).trimmed());
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

// The notifier is perhaps the one that is being served.
void UploadQuestion::end() {
    if (m_input) {
        m_input->setEnabled(false);
        m_input.release()->deleteLater();
    }
    m_progress.setPaused(false);
}

} // namespace halvane::cli
