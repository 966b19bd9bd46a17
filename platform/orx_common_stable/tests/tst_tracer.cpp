#include "Tracer.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

using namespace orx;

TEST(Tracer, WritesSpansThatATraceViewerReads) {
    const QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("trace.json"));
    TracerCategorySettings settings;
    settings.setEnabled(QStringLiteral("FILE_UPLOAD"), true);
    ASSERT_FALSE(Tracer::isInitialized());
    ASSERT_FALSE(Tracer::initialize(path, settings).hasError());
    EXPECT_TRUE(Tracer::isInitialized());
    EXPECT_TRUE(Tracer::categorySettings().isEnabled(QStringLiteral("FILE_UPLOAD")));
    EXPECT_FALSE(Tracer::categorySettings().isEnabled(QStringLiteral("OTHER")));
    EXPECT_TRUE(Tracer::initialize(path, settings).is(ErrorCode::AlreadyExists));
    Tracer::beginTrace(QStringLiteral("file_upload"), QStringLiteral("Upload:File(a \"quoted\" name)"));
    Tracer::endTrace(QStringLiteral("file_upload"), QStringLiteral("Upload:File(a \"quoted\" name)"));
    Tracer::shutdown();
    EXPECT_FALSE(Tracer::isInitialized());
    Tracer::beginTrace(QStringLiteral("after"), QStringLiteral("end"));

    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QJsonArray events = QJsonDocument::fromJson(file.readAll()).array();
    ASSERT_EQ(events.size(), 2);
    EXPECT_EQ(events.at(0)[QLatin1StringView("ph")].toString(), QStringLiteral("b"));
    EXPECT_EQ(events.at(1)[QLatin1StringView("ph")].toString(), QStringLiteral("e"));
    EXPECT_EQ(events.at(0)[QLatin1StringView("name")].toString(), QStringLiteral("file_upload"));
    EXPECT_EQ(events.at(0)[QLatin1StringView("id")].toString(),
              QStringLiteral("Upload:File(a \"quoted\" name)"));
    EXPECT_LE(events.at(0)[QLatin1StringView("ts")].toDouble(),
              events.at(1)[QLatin1StringView("ts")].toDouble());
}

TEST(Tracer, SaysThatItsFileCannotBeWritten) {
    const Error error = Tracer::initialize(QStringLiteral("/dev/null/trace.json"), TracerCategorySettings());
    EXPECT_TRUE(error.is(ErrorCode::FileNotWritable));
    EXPECT_FALSE(Tracer::isInitialized());
}
