// Uploads and downloads one file with a 1 ms timer in the same event loop and prints the longest gap between
// two of its ticks, in milliseconds, as JSON. usage: bench_event_loop URL USER PASSWORD FILE TARGET
#include <HalvaneConnection.h>
#include <HalvaneDownloadFileTask.h>
#include <HalvaneFileUploadTask.h>
#include <HalvaneSessionTasks.h>

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

//! The longest time between two turns of the loop while a task runs.
double longestGapMs(BaseTask& task) {
    QTimer timer;
    timer.setTimerType(Qt::PreciseTimer);
    QElapsedTimer clock;
    qint64 longest = 0;
    QObject::connect(&timer, &QTimer::timeout,
                     [&] { longest = std::max(longest, clock.nsecsElapsed()), clock.restart(); });
    clock.start();
    timer.start(1);
    QObject::connect(&task, &BaseTask::finished, QCoreApplication::instance(), &QCoreApplication::quit);
    task.exec();
    if (!task.isFinished())
        QCoreApplication::exec();
    return double(std::max(longest, clock.nsecsElapsed())) / 1e6;
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
    if (arguments.size() != 6) {
        std::fprintf(stderr, "usage: bench_event_loop URL USER PASSWORD FILE TARGET\n");
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
    const double up = longestGapMs(*upload);
    require(upload->error());

    const QFileInfo target(arguments.at(5));
    auto reference = upload->uploadedFile()->toResourceReference();
    require(reference.error());
    HalvaneDownloadFileTask download(
        {.reference = *reference, .targetDir = target.dir(), .targetName = target.fileName()});
    const double down = longestGapMs(download);
    require(download.error());

    const QJsonObject result{{QStringLiteral("up"), up}, {QStringLiteral("down"), down}};
    std::puts(QJsonDocument(result).toJson(QJsonDocument::Compact).constData());
    return 0;
}
