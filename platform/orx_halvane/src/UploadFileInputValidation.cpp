#include "UploadFileInputValidation.h"

#include "QuietWatch.h"

#include <Coroutines.h>
#include <FileTypes.h>
#include <MsDataFileUtils.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QSet>

#include <memory>
#include <mutex>

namespace orx {

namespace {

//! The filters in the form in which they are applied. Immutable.
struct Rules {
    explicit Rules(const UploadFilters& wanted) : filters(wanted) {
        for (const QString& extension : wanted.allowedExtensions)
            suffixes << (extension.startsWith(u'.') ? extension : u'.' + extension);
        QStringList patterns;
        for (const QString& wildcard : wanted.excludedNames)
            patterns << QRegularExpression::wildcardToRegularExpression(wildcard);
        excluded = QRegularExpression(patterns.join(u'|'), QRegularExpression::CaseInsensitiveOption);
        excluded.optimize();
    }
    bool isExcluded(const QString& name) const {
        return !filters.excludedNames.isEmpty() && excluded.match(name).hasMatch();
    }
    bool allowsExtension(const QString& name) const {
        return suffixes.isEmpty() ||
               std::any_of(suffixes.begin(), suffixes.end(),
                           [&](const QString& suffix) { return name.endsWith(suffix, Qt::CaseInsensitive); });
    }

    const UploadFilters filters;
    QStringList suffixes;
    QRegularExpression excluded;
};

struct State {
    std::mutex mutex;
    std::shared_ptr<const Rules> rules = std::make_shared<const Rules>(UploadFilters());
    QSet<QString> stillWritten;
    quint64 changes = 0;
};

State& state() {
    static State instance;
    return instance;
}

std::shared_ptr<const Rules> rules() {
    const std::lock_guard lock(state().mutex);
    return state().rules;
}

bool isStillWritten(const QString& path) {
    const std::lock_guard lock(state().mutex);
    return state().stillWritten.contains(path);
}

void setStillWritten(const QString& path, bool isWritten) {
    const std::lock_guard lock(state().mutex);
    if (state().stillWritten.contains(path) == isWritten)
        return;
    ++state().changes;
    if (isWritten)
        state().stillWritten.insert(path);
    else
        state().stillWritten.remove(path);
}

//! By the name and the file system's record of the entry alone.
UploadRefusal refusalByRules(const QFileInfo& path, const Rules& rules) {
    const QString name = path.fileName();
    const bool isThere = path.exists();
    if (!isThere && name.contains(QChar::ReplacementCharacter))
        return UploadRefusal::UnreadableName;
    if (!isThere)
        return UploadRefusal::Missing;
    if (path.isDir() && path.isSymLink())
        return UploadRefusal::DirectoryLink;
    if (!path.isDir() && !path.isFile())
        return UploadRefusal::Special;
    if (path.isHidden() && !rules.filters.takesHidden)
        return UploadRefusal::Hidden;
    if (path.isDir())
        return UploadRefusal::None;
    if (!rules.allowsExtension(name))
        return UploadRefusal::Extension;
    return rules.isExcluded(name) ? UploadRefusal::Name : UploadRefusal::None;
}

//! Whether raw data that is itself taken brings the file along.
bool isCompanion(const QFileInfo& path, const Rules& rules) {
    const QString owner = MsDataFileUtils::ownerOfCompanion(path.absoluteFilePath());
    return !owner.isEmpty() && refusalByRules(QFileInfo(owner), rules) == UploadRefusal::None;
}

//! What a look at the content says.
struct Content {
    //! Or looks like one that is not whole, perhaps since it is still being written.
    bool isAcquisition = false;
    bool isMsData = false;
    bool isCompanion = false;
    //! Of an acquisition.
    ContentStamp stamp;
};

//! \a rules: what tells which owners of companions are taken; none for what was asked for by its name.
//! Blocks.
Content contentOf(const QString& path, const std::shared_ptr<const Rules>& rules) {
    Content content;
    QStringList companions;
    content.isCompanion = rules && isCompanion(QFileInfo(path), *rules);
    if (FileTypes::fileMatchesAnyType(path, {FileTypes::VONK})) {
        // A directory of that name is any directory, whatever it holds.
        content.isAcquisition = QFileInfo(path).isFile();
    } else {
        const MsDataCheck check = MsDataFileUtils::checkMsData(path);
        content.isAcquisition = check.kind != MsDataKind::None;
        content.isMsData = check.isValid();
        companions = check.companions;
    }
    if (content.isAcquisition && !content.isCompanion)
        content.stamp = ContentStamp::of(path, companions);
    return content;
}

struct Rest {
    Content content;
    bool isReached = false;
};

//! Looks at \a path until it has come to rest, or the patience ends. What is known of the content is older
//! than its stamp, so that it is that of what rests.
QCoro::Task<Rest> comeToRest(QString path, std::shared_ptr<const Rules> rules, UploadFilters filters) {
    QuietWatch watch(filters.quietTime, filters.patience);
    QElapsedTimer clock;
    clock.start();
    for (;;) {
        std::function<Content(const std::stop_token&)> look = [path, rules](const std::stop_token&) {
            return contentOf(path, rules);
        };
        const Content content = co_await onWorker<Content>(std::move(look));
        if (!content.isAcquisition || content.isCompanion)
            co_return Rest{content, true};
        const auto [outcome, nextIn] = watch.look(content.stamp, QDateTime::currentMSecsSinceEpoch(),
                                                  std::chrono::milliseconds(clock.elapsed()));
        if (outcome != QuietWatch::State::Restless)
            co_return Rest{content, outcome == QuietWatch::State::Quiet};
        co_await delay(nextIn);
    }
}

} // namespace

QStringList UploadFilters::defaultExcludedNames() {
    return {QStringLiteral("*.tmp"),      QStringLiteral("*.temp"),       QStringLiteral("*~"),
            QStringLiteral("~$*"),        QStringLiteral("*.swp"),        QStringLiteral("*.lock"),
            QStringLiteral("*.lck"),      QStringLiteral("*.part"),       QStringLiteral("*.partial"),
            QStringLiteral("*.filepart"), QStringLiteral("*.crdownload"), QStringLiteral("thumbs.db"),
            QStringLiteral("desktop.ini")};
}

UploadFilters UploadFileInputValidation::filters() {
    return rules()->filters;
}

void UploadFileInputValidation::setFilters(const UploadFilters& filters) {
    auto made = std::make_shared<const Rules>(filters);
    const std::lock_guard lock(state().mutex);
    state().rules.swap(made);
    ++state().changes;
}

quint64 UploadFileInputValidation::changes() {
    const std::lock_guard lock(state().mutex);
    return state().changes;
}

bool UploadFileInputValidation::isAllowedExtension(const QFileInfo& path) {
    return rules()->allowsExtension(path.fileName()) || path.isDir();
}

UploadRefusal UploadFileInputValidation::refusal(const QFileInfo& path) {
    const std::shared_ptr<const Rules> applied = rules();
    const UploadRefusal refusal = refusalByRules(path, *applied);
    if (refusal != UploadRefusal::None)
        return refusal;
    if (isCompanion(path, *applied))
        return UploadRefusal::Companion;
    return isStillWritten(path.absoluteFilePath()) ? UploadRefusal::StillWritten : UploadRefusal::None;
}

QCoro::Task<UploadFileInputValidation::ValidationResult>
UploadFileInputValidation::co_validUploadPath(QFileInfo path) {
    const std::shared_ptr<const Rules> applied = rules();
    const QString file = path.absoluteFilePath();
    if (refusalByRules(path, *applied) != UploadRefusal::None)
        co_return ValidationResult{};
    const Rest rest = co_await comeToRest(file, applied, applied->filters);
    setStillWritten(file, !rest.isReached);
    co_return ValidationResult{rest.isReached && !rest.content.isCompanion, rest.content.isMsData};
}

QCoro::Task<UploadFileInputValidation::ValidationResult>
UploadFileInputValidation::co_comesToRest(QFileInfo path) {
    const QString file = path.absoluteFilePath();
    const Rest rest = co_await comeToRest(file, nullptr, filters());
    setStillWritten(file, !rest.isReached);
    co_return ValidationResult{rest.isReached, rest.content.isMsData};
}

QString UploadFileInputValidation::explanation(UploadRefusal refusal, const QString& path) {
    const auto say = [&path](const char* text) {
        return QCoreApplication::translate("orx::UploadFileInputValidation", text).arg(path);
    };
    switch (refusal) {
    case UploadRefusal::None:
        return {};
    case UploadRefusal::Missing:
        return say(QT_TR_NOOP("\"%1\" is not there."));
    case UploadRefusal::UnreadableName:
        return say(QT_TR_NOOP("The name of \"%1\" is not valid UTF-8. Rename it to upload it."));
    case UploadRefusal::Hidden:
        return say(QT_TR_NOOP("\"%1\" is hidden."));
    case UploadRefusal::DirectoryLink:
        return say(QT_TR_NOOP("\"%1\" is a link to a directory. Upload the directory itself."));
    case UploadRefusal::Special:
        return say(QT_TR_NOOP("\"%1\" is neither a file nor a directory."));
    case UploadRefusal::Extension:
        return say(QT_TR_NOOP("The extension of \"%1\" is not among those allowed."));
    case UploadRefusal::Name:
        return say(QT_TR_NOOP("The name of \"%1\" is excluded by the upload filters."));
    case UploadRefusal::Companion:
        return say(QT_TR_NOOP("\"%1\" belongs to the raw data beside it and goes up together with that."));
    case UploadRefusal::StillWritten:
        return say(QT_TR_NOOP("\"%1\" is still being written. Upload it when the acquisition has ended."));
    }
    return {};
}

} // namespace orx
