// Runs as many tasks that do nothing as asked for in one group, and makes as many bare objects with two
// connections each, in turns, and prints the seconds of each as JSON.
// usage: bench_tasks COUNT PAIRS
#include <GroupTask.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <vector>

using namespace orx;

namespace {

class Nothing : public Task {
public:
    Nothing() : Task(QString()) { ++alive; }
    ~Nothing() override { --alive; }
    static inline int alive = 0;
};

//! What a task of a group is at least: an object that tells two things to somebody.
class Bare : public QObject {
    Q_OBJECT
public:
    void run() {
        Q_EMIT started();
        Q_EMIT finished();
    }
Q_SIGNALS:
    void started();
    void finished();
};

double seconds(const QElapsedTimer& clock) {
    return double(clock.nsecsElapsed()) / 1e9;
}

double runGroup(int count) {
    int told = 0;
    QElapsedTimer clock;
    clock.start();
    {
        GroupTask group;
        for (int i = 0; i < count; ++i)
            group.addTask(std::make_unique<Nothing>(), [&told](BaseTask*) { ++told; });
        group.exec();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); // they are deleted later
    }
    const double result = seconds(clock);
    if (told != count || Nothing::alive != 0)
        std::exit(1);
    return result;
}

double runBare(int count) {
    int told = 0;
    QElapsedTimer clock;
    clock.start();
    {
        QObject context;
        std::vector<std::unique_ptr<Bare>> objects;
        for (int i = 0; i < count; ++i) {
            objects.push_back(std::make_unique<Bare>());
            QObject::connect(objects.back().get(), &Bare::started, &context, [] {});
            QObject::connect(objects.back().get(), &Bare::finished, &context, [&told] { ++told; });
        }
        for (const auto& object : objects)
            object->run();
    }
    const double result = seconds(clock);
    if (told != count)
        std::exit(1);
    return result;
}

} // namespace

int main(int argc, char** argv) {
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    const int count = arguments.value(1).toInt();
    const int pairs = arguments.value(2).toInt();
    if (arguments.size() != 3 || count < 1 || pairs < 1) {
        std::fprintf(stderr, "usage: bench_tasks COUNT PAIRS\n");
        return 2;
    }
    QJsonArray group;
    QJsonArray bare;
    for (int i = 0; i < pairs; ++i) {
        group.append(runGroup(count));
        bare.append(runBare(count));
    }
    const QJsonObject result{{QStringLiteral("group"), group}, {QStringLiteral("bare"), bare}};
    std::puts(QJsonDocument(result).toJson(QJsonDocument::Compact).constData());
    return 0;
}

#include "bench_tasks.moc"
