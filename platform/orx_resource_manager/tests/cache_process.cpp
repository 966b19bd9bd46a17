// A process beside a test that uses the same cache. The arguments are the cache, a sub-path and one of:
// - fill CONTENT: fills the entry; prints "fetching" when it fetches, and the fetch goes on when a line comes
// - half CONTENT: writes a part of the content, prints "half" and never ends
// - lease: leases the entry, prints "leased" or "absent" and keeps it until its input ends
#include "CacheFixture.h"

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
    const Error error = fill(cache, arguments.at(2), arguments.value(4).toUtf8(), command == u"half");
    if (error.hasError())
        std::fprintf(stderr, "%s\n", qPrintable(error.traceText()));
    else
        say("filled");
    return error.hasError() ? 1 : 0;
}
