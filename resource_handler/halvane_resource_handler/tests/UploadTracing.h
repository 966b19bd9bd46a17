#pragma once

#include "UploadFixture.h"

#include <Tracer.h>

#include <QJsonArray>
#include <QJsonDocument>

namespace orx::testing {

//! The spans in a trace file that was shut down, as "phase event id": phase b begins, e ends.
inline QStringList spansIn(const QString& traceFile) {
    QFile file(traceFile);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
    EXPECT_TRUE(document.isArray());
    QStringList spans;
    const QJsonArray events = document.array();
    for (const QJsonValue& event : events) {
        spans.append(QStringLiteral("%1 %2 %3")
                         .arg(event[QStringLiteral("ph")].toString(),
                              event[QStringLiteral("name")].toString(),
                              event[QStringLiteral("id")].toString()));
    }
    return spans;
}

//! Starts tracing with or without the category of uploads.
inline void startTracer(const QString& traceFile, bool uploads) {
    TracerCategorySettings settings;
    settings.setEnabled(QStringLiteral("FILE_UPLOAD"), uploads);
    settings.setEnabled(QStringLiteral("OTHER"), true);
    const Error error = Tracer::initialize(traceFile, settings);
    ASSERT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
}

} // namespace orx::testing
