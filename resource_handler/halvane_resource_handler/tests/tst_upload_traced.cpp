// A program of its own, since the decision to trace is taken once per process: here it is yes.
#include "UploadTracing.h"

namespace orx::testing {
namespace {

using UploadTraced = UploadTest;

TEST_F(UploadTraced, EveryUploadIsASpanAndTheDecisionStays) {
    const QString path = makeFile(QStringLiteral("run.mzML"));
    const QString missing = filePath(QStringLiteral("missing"));
    const QString traceFile = filePath(QStringLiteral("trace.json"));
    startTracer(traceFile, true);
    HalvaneFileUploadTask good(uploadOf(path), nullptr);
    EXPECT_FALSE(run(good).hasError());
    HalvaneFileUploadTask bad(uploadOf(missing), nullptr);
    EXPECT_TRUE(run(bad).hasError());
    Tracer::shutdown();
    const QString first = QStringLiteral("file_upload Upload:File(%1)").arg(path);
    const QString second = QStringLiteral("file_upload Upload:File(%1)").arg(missing);
    EXPECT_EQ(spansIn(traceFile),
              (QStringList{QStringLiteral("b ") + first, QStringLiteral("e ") + first,
                           QStringLiteral("b ") + second, QStringLiteral("e ") + second}));

    // Another trace without the category: the decision was taken.
    const QString later = filePath(QStringLiteral("later.json"));
    startTracer(later, false);
    HalvaneFileUploadTask third(uploadOf(missing), nullptr);
    EXPECT_TRUE(run(third).hasError());
    Tracer::shutdown();
    EXPECT_EQ(spansIn(later), (QStringList{QStringLiteral("b ") + second, QStringLiteral("e ") + second}));
}

} // namespace
} // namespace orx::testing
