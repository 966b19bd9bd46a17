#include "UploadSums.h"

#include <FileStamp.h>
#include <FileTypes.h>
#include <MsDataFileUtils.h>
#include <UploadFileInputValidation.h>

#include <QDir>
#include <QFile>
#include <QHash>

#include <chrono>
#include <mutex>

namespace orx {

namespace {

constexpr qsizetype capacity = 65'536;
// The times of file systems are coarse, some count every other second only: what changed just now may change
// once more without another stamp.
constexpr qint64 settledAfter = 3'000'000'000;

qint64 realTime() {
    using namespace std::chrono;
    return duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
}

bool isOneUpload(const QString& directory) {
    return !FileTypes::fileMatchesAnyType(directory, {FileTypes::VONK}) &&
           MsDataFileUtils::isValidMsData(directory);
}

//! What one directory holds.
struct Level {
    int files = 0;
    QStringList directories;
    //! Whether nothing but a change of the directory or of the rules changes it.
    bool isLasting = true;
};

struct Remembered {
    FileStamp stamp;
    quint64 rules;
    std::shared_ptr<const Level> level;
};

} // namespace

struct UploadSums::Private {
    std::shared_ptr<const Level> levelOf(const QString& directory);
    std::shared_ptr<const Level> recall(const QByteArray& path, const FileStamp& stamp, quint64 rules) const;

    const Clock clock;
    mutable std::mutex mutex = {};
    QHash<QByteArray, Remembered> levels = {};
    quint64 listings = 0;
};

UploadSums& UploadSums::instance() {
    // Never destroyed: a worker may sum up while the program ends.
    static UploadSums& only = *new UploadSums(&realTime);
    return only;
}

UploadSums::UploadSums(Clock clock) : d(new Private{std::move(clock)}) {}

UploadSums::~UploadSums() = default;

int UploadSums::uploadsIn(const QString& directory, const std::stop_token& stop) {
    const std::shared_ptr<const Level> level = d->levelOf(directory);
    int sum = level->files;
    const QDir above(directory);
    for (const QString& name : level->directories) {
        if (stop.stop_requested())
            break;
        const QString path = above.filePath(name);
        sum += isOneUpload(path) ? 1 : uploadsIn(path, stop);
    }
    return sum;
}

std::shared_ptr<const Level> UploadSums::Private::levelOf(const QString& directory) {
    const QByteArray key = QFile::encodeName(QFileInfo(directory).absoluteFilePath());
    const auto stamp = FileStamp::of(key);
    const quint64 rules = UploadFileInputValidation::changes();
    if (const auto known = stamp ? recall(key, *stamp, rules) : nullptr)
        return known;
    const qint64 before = clock();
    const auto level = std::make_shared<Level>();
    const QFileInfoList entries = QDir(directory).entryInfoList(
        QDir::Dirs | QDir::Files | QDir::Drives | QDir::NoDotAndDotDot, QDir::NoSort);
    for (const QFileInfo& entry : entries) {
        // What a link leads to, and whether a companion has an owner, may change elsewhere.
        if (entry.isSymLink() || MsDataFileUtils::mayBeCompanion(entry.filePath()))
            level->isLasting = false;
        if (!UploadFileInputValidation::validUploadPath(entry))
            continue;
        if (entry.isFile())
            ++level->files;
        else
            level->directories.append(entry.fileName());
    }
    const std::lock_guard lock(mutex);
    ++listings;
    if (level->isLasting && stamp && stamp->newest() < before - settledAfter) {
        if (levels.size() >= capacity)
            levels.clear();
        levels.insert(key, {*stamp, rules, level});
    }
    return level;
}

std::shared_ptr<const Level> UploadSums::Private::recall(const QByteArray& path, const FileStamp& stamp,
                                                         quint64 rules) const {
    const std::lock_guard lock(mutex);
    const auto found = levels.constFind(path);
    const bool holds = found != levels.cend() && found->stamp == stamp && found->rules == rules;
    return holds ? found->level : nullptr;
}

quint64 UploadSums::listings() const {
    const std::lock_guard lock(d->mutex);
    return d->listings;
}

} // namespace orx
