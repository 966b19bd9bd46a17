// Uploads and downloads one file and puts it into a resource cache, with a 1 ms timer in the same event loop,
// and prints the longest gaps between two of its ticks, in milliseconds, as JSON. "floor" holds what a thread
// that does nothing but sleep for 1 ms at a time saw meanwhile: the longest that the machine itself kept a
// thread waiting. usage: bench_event_loop URL USER PASSWORD FILE TARGET CACHE
#include "FloorProbe.h"

#include <HalvaneConnection.h>
#include <HalvaneDownloadFileTask.h>
#include <HalvaneFileUploadTask.h>
#include <HalvaneSessionTasks.h>
#include <ResourceCache.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

#include <algorithm>
#include <cstdio>

using namespace orx;

namespace {

//! The longest time between two turns of this thread's event loop while the object lives.
class LoopProbe {
public:
    LoopProbe() {
        m_timer.setTimerType(Qt::PreciseTimer);
        QObject::connect(&m_timer, &QTimer::timeout, [this] { turn(); });
        m_clock.start();
        m_timer.start(1);
    }
    double longestGapMs() {
        turn();
        return double(m_longest) / 1e6;
    }

private:
    void turn() {
        m_longest = std::max(m_longest, m_clock.nsecsElapsed());
        m_clock.restart();
    }

    QTimer m_timer;
    QElapsedTimer m_clock;
    qint64 m_longest = 0;
};

struct Gaps {
    double loop = 0;
    double floor = 0;
};

QJsonObject toJson(const Gaps& gaps) {
    return {{QStringLiteral("loop"), gaps.loop}, {QStringLiteral("floor"), gaps.floor}};
}

Gaps longestGaps(BaseTask& task) {
    FloorProbe floor;
    LoopProbe probe;
    QObject::connect(&task, &BaseTask::finished, QCoreApplication::instance(), &QCoreApplication::quit);
    task.exec();
    if (!task.isFinished())
        QCoreApplication::exec();
    const double loop = probe.longestGapMs();
    return {loop, floor.longestGapMs()};
}

void require(const Error& error) {
    if (!error.hasError())
        return;
    std::fprintf(stderr, "bench_event_loop: %s\n", qPrintable(error.traceText()));
    std::exit(1);
}

} // namespace

int main(int argc, char** argv) {
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 7) {
        std::fprintf(stderr, "usage: bench_event_loop URL USER PASSWORD FILE TARGET CACHE\n");
        return 2;
    }
    HalvaneConnection& connection = HalvaneConnection::instance();
    connection.setSettings(
        HalvaneSettings(HalvaneMachineSettings(QUrl(arguments.at(1))), HalvaneUserSettings()));
    HalvaneLoginTask login(arguments.at(2), arguments.at(3));
    login.exec();
    require(login.waitForFinished());
    connection.setCredentials(arguments.at(2), login.token());

    auto parameters = HalvaneFileUploadParameters::create(
        arguments.at(4), 1, HalvaneResourceReference::ItemType::Folder, QString(),
        std::optional<QList<HalvaneCompactExtendedMetaDataValue>>(),
        HalvaneUploadTask::DEFAULT_UPLOAD_POLICY_OPTIONS, std::nullopt);
    require(parameters.error());
    const auto upload = HalvaneFileUploadTask::create(*parameters);
    const Gaps up = longestGaps(*upload);
    require(upload->error());

    const QFileInfo target(arguments.at(5));
    auto reference = upload->uploadedFile()->toResourceReference();
    require(reference.error());
    HalvaneDownloadFileTask download(
        {.reference = *reference, .targetDir = target.dir(), .targetName = target.fileName()});
    const Gaps down = longestGaps(download);
    require(download.error());

    ResourceCache cache(arguments.at(6));
    FloorProbe floor;
    LoopProbe probe;
    const QString subPath = QStringLiteral("bench/file");
    require(cache.add(*reference, subPath, Path(arguments.at(4), PathType::File)));
    for (const QString& failure : cache.waitForPending())
        require(Error(ErrorCode::General, failure));
    const double kept = probe.longestGapMs();
    const Gaps cached{kept, floor.longestGapMs()};
    if (!cache.contains(subPath))
        require(Error(ErrorCode::General, QStringLiteral("The file is not in the cache.")));

    const QJsonObject result{{QStringLiteral("up"), toJson(up)},
                             {QStringLiteral("down"), toJson(down)},
                             {QStringLiteral("into the cache"), toJson(cached)}};
    std::puts(QJsonDocument(result).toJson(QJsonDocument::Compact).constData());
    return 0;
}
