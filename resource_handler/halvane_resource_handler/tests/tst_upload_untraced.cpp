// A program of its own, since the decision to trace is taken once per process: here it is no, the tracer
// being off.
#include "UploadTracing.h"

namespace orx::testing {
namespace {

using UploadUntraced = UploadTest;

TEST_F(UploadUntraced, WithoutATracerNothingIsTracedAndTheDecisionStays) {
    const QString missing = filePath(QStringLiteral("missing"));
    HalvaneFileUploadTask before(uploadOf(missing), nullptr);
    EXPECT_TRUE(run(before).hasError());

    const QString traceFile = filePath(QStringLiteral("trace.json"));
    startTracer(traceFile, true);
    HalvaneFileUploadTask after(uploadOf(missing), nullptr);
    EXPECT_TRUE(run(after).hasError());
    Tracer::shutdown();
    EXPECT_EQ(spansIn(traceFile), QStringList());
}

} // namespace
} // namespace orx::testing
