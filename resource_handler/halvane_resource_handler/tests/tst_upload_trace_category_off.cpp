// A program of its own, since the decision to trace is taken once per process: here it is no, the category
// being off.
#include "UploadTracing.h"

namespace orx::testing {
namespace {

using UploadTraceCategoryOff = UploadTest;

TEST_F(UploadTraceCategoryOff, ATracerWithoutTheCategoryTracesNothing) {
    const QString traceFile = filePath(QStringLiteral("trace.json"));
    startTracer(traceFile, false);
    HalvaneFileUploadTask task(uploadOf(makeFile(QStringLiteral("run.mzML"))), nullptr);
    EXPECT_FALSE(run(task).hasError());
    Tracer::shutdown();
    EXPECT_EQ(spansIn(traceFile), QStringList());
}

} // namespace
} // namespace orx::testing
