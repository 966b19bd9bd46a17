// What comes of a look-up of names that fails. The real one never does: the task is compiled once more, with
// one that does.
#include "../src/tasks/ExistingFile.h"
#include "../src/tasks/HalvaneValidateUploadInputFileTask.h"
#include "../src/tasks/HalvaneVerifyUploadedFileTask.h"
#include "LogProbe.h"
#include "UploadFixture.h"

#include <FileTypes.h>
#include <GetDuplicateUploadPolicyTask.h>
#include <HalvaneConnectionUtils.h>
#include <HalvaneItemTasks.h>

#include <QFileInfo>

namespace orx {

struct FailingUtils {
    static Result<int> findFileIdInFiles(const QString& name, const QList<HalvaneFileItemSPtr>& files) {
        looked.append(QStringLiteral("%1 among %2").arg(name).arg(files.size()));
        return Error(ErrorCode::General, QStringLiteral("the reason"));
    }
    static inline QStringList looked;
};

} // namespace orx

#define HalvaneConnectionUtils FailingUtils
#include "../src/tasks/HalvaneVerifyUploadedFileTask.cpp" // NOLINT
#undef HalvaneConnectionUtils

namespace orx::testing {
namespace {

class NeverAsked : public DuplicateUploadPolicyInterface {
public:
    void decide(const DuplicateUploadPolicyRequestPtr& request) override {
        ADD_FAILURE() << "asked";
        request->answer(DuplicateUploadAnswer::NewVersion);
    }
};

using FailedLookup = UploadTest;

TEST_F(FailedLookup, LeavesTheEntryOutWithAWarningWithoutAskingThePolicyAndIsNoFailure) {
    const int folder = server.service().addFolder(QStringLiteral("target"));
    server.service().addFile(QStringLiteral("run.txt"), "old", folder);
    const QString path = makeFile(QStringLiteral("run.txt"));
    const LogProbe log;
    HalvaneVerifyUploadedFileTask task({UploadedFileData(folder, path), QStringLiteral("target")},
                                       std::make_shared<NeverAsked>());
    EXPECT_FALSE(run(task).hasError());
    EXPECT_TRUE(task.isSuccessful());
    EXPECT_EQ(FailingUtils::looked, QStringList(QStringLiteral("run.txt among 1")));
    EXPECT_EQ(task.uploadedFileData(), UploadedFileData(path));
    EXPECT_EQ(task.uploadedFileData().id(), -1);
    EXPECT_EQ(LogProbe::lines(),
              QStringList(QStringLiteral("warning|Cannot check if run.txt file already exists in the target "
                                         "folder.\nError: run.txt")));
    EXPECT_TRUE(LogProbe::file.endsWith(QStringLiteral("HalvaneVerifyUploadedFileTask.cpp")));
    EXPECT_TRUE(LogProbe::function.contains(QStringLiteral("decide")));
}

} // namespace
} // namespace orx::testing
