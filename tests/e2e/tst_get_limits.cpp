// A tree that is wide and deep comes down with few descriptors and little memory.
#include "Client.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>

#include <sys/resource.h>

namespace orx::testing {
namespace {

constexpr int levels = 12;
constexpr int filesPerLevel = 50;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
//! Most of it is the sanitizer's own.
constexpr long mostMiB = 900;
#else
constexpr long mostMiB = 300;
#endif

//! Of the largest process that has ended so far, in MiB.
long peakOfChildren() {
    rusage usage{};
    EXPECT_EQ(::getrusage(RUSAGE_CHILDREN, &usage), 0);
    return usage.ru_maxrss / 1024;
}

QMap<QString, QByteArray> filesBelow(const QString& directory) {
    QMap<QString, QByteArray> files;
    QDirIterator it(directory, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        files.insert(QDir(directory).relativeFilePath(path), Client::contentOf(path));
    }
    return files;
}

TEST(GetLimits, ATreeOfTwelveLevelsComesDownWithFewDescriptorsAndLittleMemory) {
    RealServer server;
    ASSERT_TRUE(server.start());
    Client client;
    ASSERT_TRUE(client.login(server.url()));
    QString directory = "tree";
    for (int level = 1; level <= levels; ++level) {
        directory += QString("/level %1").arg(level);
        ASSERT_TRUE(QDir().mkpath(client.path(directory)));
        for (int i = 0; i < filesPerLevel; ++i)
            client.makeFile(directory + QString("/run %1").arg(i), QByteArray::number(level * 1000 + i));
    }
    client.mustRun({"put", "--no-cache", "tree", "--to", "/"});
    const Outcome outcome = client.runWrapped({"prlimit", "--nofile=256", "--"},
                                              {"--json", "get", "/tree", "--to", client.path("out")});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    const auto files = filesBelow(client.path("out/tree"));
    EXPECT_EQ(files.size(), levels * filesPerLevel);
    EXPECT_EQ(files, filesBelow(client.path("tree")));
    EXPECT_LE(peakOfChildren(), mostMiB);
}

} // namespace
} // namespace orx::testing
