// A process beside a test that uses the same cache. The arguments are the cache, a sub-path and one of:
// - fill CONTENT: fills the entry; prints "fetching" when it fetches, and the fetch goes on when a line
// comes,
//   or "waiting" when it finds that another one fills the entry
// - half CONTENT: writes a part of the content, prints "half" and never ends
// - replace COUNT: fills COUNT entries below the sub-path, and then anew, in order; prints "old N" and "new
// N" when
//   one is there; CacheEntries.h tells their content
// - write CONTENT: replaces the entry by a writer that writes a part of the content, prints "half" and never
//   ends
// - lease: leases the entry, prints "leased" or "absent" and keeps it until its input ends
#include "CacheEntries.h"
#include "CacheFixture.h"

#include <QLoggingCategory>

#include <cstdio>

using namespace orx;

namespace {

void say(const char* text) {
    std::puts(text);
    std::fflush(stdout);
}

Error bring(const QString& target, const QByteArray& content, bool isHalf) {
    if (isHalf) {
        if (!orx::testing::writeFile(target + u".part"_qs, content.left(content.size() / 2)))
            return Error(ErrorCode::FileNotWritable, target);
        say("half");
        while (true)
            ::pause();
    }
    say("fetching");
    (void)std::getchar();
    return orx::testing::writeFile(target, content) ? Error() : Error(ErrorCode::FileNotWritable, target);
}

Error fill(ResourceCache& cache, const QString& subPath, const QByteArray& content, bool isHalf) {
    const auto task = cache.fillTask(
        nullptr, subPath,
        [&](const DirPath& directory) -> std::unique_ptr<Task> {
            const QString target = directory.child(subPath.section(u'/', -1));
            return std::make_unique<probes::BodyTask>(
                [=](probes::BodyTask*) { return bring(target, content, isHalf); });
        },
        ResourceCache::FillMode::Missing);
    task->exec();
    return task->waitForFinished();
}

Error write(ResourceCache& cache, const QString& subPath, const QByteArray& content) {
    return cache.add(nullptr, subPath, [&] {
        const auto path = cache.expectedPath(subPath);
        return path ? bring(path->toString(), content, true) : path.error();
    });
}

Error replaceEach(ResourceCache& cache, const QString& top, int count) {
    for (const char* const round : {"old", "new"})
        for (int i = 0; i < count; ++i) {
            const auto task = cache.fillTask(
                nullptr, orx::testing::numberedEntry(top, i),
                [=](const DirPath& directory) -> std::unique_ptr<Task> {
                    return std::make_unique<probes::BodyTask>([=](probes::BodyTask*) {
                        return orx::testing::writeNumberedEntry(directory.child(QString::number(i)), i, round)
                                   ? Error()
                                   : Error(ErrorCode::FileNotWritable, directory.toString());
                    });
                },
                ResourceCache::FillMode::Anew);
            task->exec();
            ORX_RETURN_ON_ERROR(task->waitForFinished());
            say(qPrintable(QStringLiteral("%1 %2").arg(QLatin1String(round)).arg(i)));
        }
    return Error();
}

void keepLease(ResourceCache& cache, const QString& subPath) {
    const auto lease = cache.lease(subPath);
    say(lease ? "leased" : "absent");
    while (std::getchar() != EOF) {
    }
}

} // namespace

int main(int argc, char** argv) {
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() < 4)
        return 2;
    ResourceCache cache(arguments.at(1));
    const QString command = arguments.at(3);
    if (command == u"lease") {
        keepLease(cache, arguments.at(2));
        return 0;
    }
    QLoggingCategory::setFilterRules(u"orx.cache.waiting.info=true"_qs);
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext& context, const QString& message) {
        if (type == QtInfoMsg && QLatin1String(context.category) == QLatin1String("orx.cache.waiting"))
            say("waiting");
        else
            std::fprintf(stderr, "%s\n", qPrintable(message));
    });
    if (command == u"write")
        return write(cache, arguments.at(2), arguments.value(4).toUtf8()).hasError() ? 1 : 0;
    const Error error = command == u"replace"
                            ? replaceEach(cache, arguments.at(2), arguments.value(4).toInt())
                            : fill(cache, arguments.at(2), arguments.value(4).toUtf8(), command == u"half");
    if (error.hasError())
        std::fprintf(stderr, "%s\n", qPrintable(error.traceText()));
    else
        say("filled");
    return error.hasError() ? 1 : 0;
}
