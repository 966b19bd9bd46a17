// Makes a deep tree of small files on a server, sends a directory as a host does or as `halvane put` does,
// sums up the progress of one, or brings a folder down through the cache, and prints what it took as JSON.
// usage: bench_tree make URL USER PASSWORD FILES WORK_DIRECTORY
//        bench_tree put URL USER PASSWORD DIRECTORY CACHE_DIRECTORY
//        bench_tree put-command URL USER PASSWORD DIRECTORY TARGET CACHE_DIRECTORY
//        bench_tree sum DIRECTORY
//        bench_tree get URL USER PASSWORD FOLDER TARGET_DIRECTORY CACHE_DIRECTORY
#include "FloorProbe.h"

#include <HalvaneConnection.h>
#include <HalvaneDownloadFolderCacheTask.h>
#include <HalvaneFileUploadTask.h>
#include <HalvaneFolderUploadTask.h>
#include <HalvaneItemTasks.h>
#include <HalvaneResourceHandler.h>
#include <HalvaneSessionTasks.h>

#include <DuplicateUploadPolicy.h>
#include <GroupTask.h>
#include <ResourceCache.h>
#include <ResourceManager.h>
#include <TreeUploadJob.h>
#include <UploadFileInputValidation.h>
#include <UploadSums.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <utility>

using namespace orx;

namespace {

constexpr int chains = 10;
constexpr int levels = 12;
constexpr int fileSize = 10'000;

void require(const Error& error) {
    if (!error.hasError())
        return;
    std::fprintf(stderr, "bench_tree: %s\n", qPrintable(error.traceText()));
    std::exit(1);
}

void run(BaseTask& task) {
    QObject::connect(&task, &BaseTask::finished, QCoreApplication::instance(), &QCoreApplication::quit);
    task.exec();
    if (!task.isFinished())
        QCoreApplication::exec();
    require(task.error());
}

void print(const QJsonObject& result) {
    std::puts(QJsonDocument(result).toJson(QJsonDocument::Compact).constData());
}

int makeFolder(const QString& name, int parent) {
    HalvaneCreateFolderTask task({name, {}, parent});
    run(task);
    return task.createdFolderId();
}

//! Random bytes in a file of its own.
QString makeSource(const QDir& directory, int number) {
    QFile file(directory.filePath(QStringLiteral("run %1.raw").arg(number)));
    QList<quint32> words(fileSize / qsizetype(sizeof(quint32)));
    QRandomGenerator::global()->fillRange(words.data(), words.size());
    const QByteArray bytes(reinterpret_cast<const char*>(words.constData()), fileSize);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        require(Error(ErrorCode::FileNotWritable, file.errorString()));
    return file.fileName();
}

std::unique_ptr<BaseTask> upload(const QString& path, int folder) {
    auto parameters = HalvaneFileUploadParameters::create(
        path, folder, HalvaneResourceReference::ItemType::Folder, QString(),
        std::optional<QList<HalvaneCompactExtendedMetaDataValue>>(),
        HalvaneUploadTask::DEFAULT_UPLOAD_POLICY_OPTIONS, std::nullopt);
    require(parameters.error());
    return HalvaneFileUploadTask::create(*parameters);
}

void makeTree(int files, const QDir& sources) {
    const int top = makeFolder(QStringLiteral("tree"), 1);
    const int folders = chains * levels;
    int made = 0;
    for (int chain = 0; chain < chains; ++chain) {
        int folder = makeFolder(QStringLiteral("chain %1").arg(chain), top);
        for (int level = 1; level <= levels; ++level) {
            if (level > 1)
                folder = makeFolder(QStringLiteral("level %1").arg(level), folder);
            const int upTo = int(qint64(files) * (chain * levels + level) / folders);
            GroupTask group;
            for (; made < upTo; ++made)
                group.addTask(upload(makeSource(sources, made), folder));
            run(group);
        }
    }
    print({{QStringLiteral("folder"), top}});
}

//! High-water mark of the resident memory.
double peakMiB() {
    QFile status(QStringLiteral("/proc/self/status"));
    require(status.open(QIODevice::ReadOnly) ? Error()
                                             : Error(ErrorCode::FileNotReadable, status.fileName()));
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').first().toDouble() / 1024;
    return 0;
}

//! The most descriptors that this process had open whenever it was asked.
class Descriptors {
public:
    void look() {
        const QDir open(QStringLiteral("/proc/self/fd")); // it would remember what it found
        const auto all = QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot;
        m_most = std::max(m_most, open.entryList(all, QDir::NoSort).size());
    }
    qsizetype most() const { return m_most; }

private:
    qsizetype m_most = 0;
};

void getTree(int folder, const QString& target, const QString& cacheDir) {
    HalvaneResourceHandler::registerType();
    ResourceCache cache(cacheDir);
    ResourceManager::setCache(&cache);
    auto reference = HalvaneFolderResourceReference::create(folder, QStringLiteral("tree"));
    require(reference.error());
    QJsonObject result;
    {
        HalvaneDownloadFolderCacheTask task(*reference, target, true, nullptr);
        Descriptors descriptors;
        QObject::connect(&task, &BaseTask::progress, &task, [&descriptors] { descriptors.look(); });
        QElapsedTimer clock;
        clock.start();
        run(task);
        result = {{QStringLiteral("seconds"), double(clock.elapsed()) / 1e3},
                  {QStringLiteral("files"), task.downloadedFileCount()},
                  {QStringLiteral("descriptors"), descriptors.most()},
                  {QStringLiteral("memory_mib"), peakMiB()}};
    }
    ResourceManager::setCache(nullptr);
    print(result);
}

//! Of this thread, in milliseconds.
double processorMs() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) * 1e3 + double(now.tv_nsec) / 1e6;
}

//! The longest time between two turns of this thread's event loop while the object lives, in milliseconds.
class LoopProbe {
public:
    struct Gap {
        double wall = 0;
        double processor = 0; //!< of this thread
    };

    LoopProbe() {
        m_clock.start();
        m_timer.setTimerType(Qt::PreciseTimer);
        QObject::connect(&m_timer, &QTimer::timeout, [this] { turn(); });
        m_timer.start(1);
    }
    //! This turn makes a whole level of uploads at once, which counts for itself.
    void makesLevel() { m_makesLevel = true; }
    void end() {
        turn();
        m_timer.stop();
    }
    Gap longest() const { return m_longest; }
    Gap longestLevel() const { return m_longestLevel; }

private:
    void turn() {
        const Gap now{double(m_clock.nsecsElapsed()) / 1e6, processorMs()};
        const Gap gap{now.wall - m_last.wall, now.processor - m_last.processor};
        Gap& longest = std::exchange(m_makesLevel, false) ? m_longestLevel : m_longest;
        if (gap.wall > longest.wall)
            longest = gap;
        m_last = now;
    }

    QTimer m_timer;
    QElapsedTimer m_clock;
    Gap m_last{0, processorMs()};
    Gap m_longest;
    Gap m_longestLevel;
    bool m_makesLevel = false;
};

//! What making the task takes, which sums up the maximum of the progress of the whole tree. Each time nothing
//! is known of the tree.
void sumUp(const QString& directory) {
    constexpr int runs = 7;
    QList<double> taken;
    int maximum = 0;
    quint64 listings = 0;
    for (int i = 0; i <= runs; ++i) { // the first one warms up
        UploadFileInputValidation::setFilters(UploadFileInputValidation::filters());
        const quint64 before = UploadSums::instance().listings();
        QElapsedTimer clock;
        clock.start();
        const HalvaneFolderUploadTask task(directory, 1, {}, HalvaneUploadTask::DEFAULT_UPLOAD_POLICY_OPTIONS,
                                           nullptr);
        if (i > 0)
            taken.append(double(clock.nsecsElapsed()) / 1e6);
        maximum = task.maxProgress();
        const quint64 listed = UploadSums::instance().listings() - before;
        if (i > 0 && listed != listings)
            require(
                Error(ErrorCode::General,
                      QStringLiteral("%1 directories were listed, and %2 before").arg(listed).arg(listings)));
        listings = listed;
    }
    std::sort(taken.begin(), taken.end());
    print({{QStringLiteral("milliseconds"), taken[runs / 2]},
           {QStringLiteral("listings"), qint64(listings)},
           {QStringLiteral("maximum"), maximum}});
}

//! Sends the directory; names that are taken are left alone, so that a second run sends nothing.
void putTree(const QString& directory, const QString& cacheDir) {
    HalvaneResourceHandler::registerType();
    ResourceCache cache(cacheDir);
    ResourceManager::setCache(&cache);
    const double before = processorMs();
    HalvaneFolderUploadTask task(directory, 1, {}, HalvaneUploadTask::DEFAULT_UPLOAD_POLICY_OPTIONS, nullptr);
    const double made = processorMs() - before;
    task.setDuplicateUploadPolicy(std::make_shared<FixedDuplicateUploadPolicy>(DuplicateUploadAnswer::Skip));
    Descriptors descriptors;
    QTimer looks;
    QObject::connect(&looks, &QTimer::timeout, [&descriptors] { descriptors.look(); });
    looks.start(10);
    QElapsedTimer clock;
    clock.start();
    FloorProbe floor;
    LoopProbe loop;
    QObject::connect(&task, &HalvaneFolderUploadTask::uploadStarted, [&loop] { loop.makesLevel(); });
    run(task);
    const double seconds = double(clock.nsecsElapsed()) / 1e9;
    const double spent = processorMs() - before;
    loop.end();
    cache.waitForPending();
    ResourceManager::setCache(nullptr);
    print({{QStringLiteral("seconds"), seconds},
           {QStringLiteral("thread_seconds"), spent / 1e3},
           {QStringLiteral("making_ms"), made},
           {QStringLiteral("longest_gap_ms"), loop.longest().wall},
           {QStringLiteral("longest_gap_processor_ms"), loop.longest().processor},
           {QStringLiteral("longest_level_ms"), loop.longestLevel().wall},
           {QStringLiteral("floor"), floor.longestGapMs()},
           {QStringLiteral("files"), task.successfulFileUploadsCount()},
           {QStringLiteral("maximum"), task.maxProgress()},
           {QStringLiteral("descriptors"), descriptors.most()},
           {QStringLiteral("memory_mib"), peakMiB()}});
}

//! The job of `halvane put`, asked how it stands as often as the command line does.
void putByCommand(const QString& directory, const QString& target, const QString& cacheDir) {
    using namespace halvane::host;
    HalvaneResourceHandler::registerType();
    ResourceCache cache(cacheDir);
    ResourceManager::setCache(&cache);
    TreeUploadRequest request;
    request.paths = {directory};
    request.target = target;
    TreeUploadJob job(request, UploadPolicy::optionsOf(request, false, {}));
    int uploaded = 0;
    int unchanged = 0;
    QObject::connect(&job, &TreeUploadJob::fileDone, [&](const UploadedFile& file) {
        ++(file.outcome == UploadedFile::Outcome::Uploaded ? uploaded : unchanged);
    });
    QTimer shows;
    QObject::connect(&shows, &QTimer::timeout, [&job] { (void)job.state(); });
    shows.start(100);
    QElapsedTimer clock;
    clock.start();
    FloorProbe floor;
    LoopProbe loop;
    run(job);
    const double seconds = double(clock.nsecsElapsed()) / 1e9;
    loop.end();
    cache.waitForPending();
    ResourceManager::setCache(nullptr);
    print({{QStringLiteral("seconds"), seconds},
           {QStringLiteral("loop"), loop.longest().wall},
           {QStringLiteral("loop_processor"), loop.longest().processor},
           {QStringLiteral("floor"), floor.longestGapMs()},
           {QStringLiteral("uploaded"), uploaded},
           {QStringLiteral("unchanged"), unchanged}});
}

} // namespace

int main(int argc, char** argv) {
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    const QString what = arguments.value(1);
    const bool makes = what == u"make" && arguments.size() == 7;
    const bool puts = what == u"put" && arguments.size() == 7;
    const bool putsByCommand = what == u"put-command" && arguments.size() == 8;
    if (what == u"sum" && arguments.size() == 3) {
        sumUp(arguments.at(2));
        return 0;
    }
    if (!makes && !puts && !putsByCommand && !(what == u"get" && arguments.size() == 8)) {
        std::fprintf(stderr,
                     "usage: bench_tree make URL USER PASSWORD FILES WORK_DIRECTORY\n"
                     "       bench_tree put URL USER PASSWORD DIRECTORY CACHE_DIRECTORY\n"
                     "       bench_tree put-command URL USER PASSWORD DIRECTORY TARGET CACHE_DIRECTORY\n"
                     "       bench_tree sum DIRECTORY\n"
                     "       bench_tree get URL USER PASSWORD FOLDER TARGET_DIRECTORY CACHE_DIRECTORY\n");
        return 2;
    }
    HalvaneConnection& connection = HalvaneConnection::instance();
    connection.setSettings(
        HalvaneSettings(HalvaneMachineSettings(QUrl(arguments.at(2))), HalvaneUserSettings()));
    HalvaneLoginTask login(arguments.at(3), arguments.at(4));
    run(login);
    connection.setCredentials(arguments.at(3), login.token());
    if (makes)
        makeTree(arguments.at(5).toInt(), QDir(arguments.at(6)));
    else if (puts)
        putTree(arguments.at(5), arguments.at(6));
    else if (putsByCommand)
        putByCommand(arguments.at(5), arguments.at(6), arguments.at(7));
    else
        getTree(arguments.at(5).toInt(), arguments.at(6), arguments.at(7));
    return 0;
}
