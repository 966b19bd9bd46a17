#include <tasks/HalvaneUploadTask.h>

#include <gtest/gtest.h>

#include <type_traits>

namespace orx {
namespace {

class SmallestUpload : public HalvaneUploadTask {
public:
    using HalvaneUploadTask::HalvaneUploadTask;
    UploadDataType uploadDataType() const override { return UploadDataType::Folder; }
    int currentProgress() const override { return 3; }
    int maxProgress() const override { return 5; }

protected:
    Error initialize() override { return Error(); }
};

static_assert(std::is_abstract_v<HalvaneUploadTask>);
static_assert(std::is_base_of_v<HalvaneComplexTask, HalvaneUploadTask>);
static_assert(std::is_base_of_v<CustomComplexTask, HalvaneUploadTask>);
static_assert(std::is_base_of_v<Authenticable, HalvaneUploadTask>);
static_assert(sizeof(HalvaneUploadTask) == sizeof(HalvaneComplexTask), "the root has no data of its own");
static_assert(HalvaneUploadTask::DEFAULT_UPLOAD_POLICY_OPTIONS.toInt() == 2);
static_assert(std::is_same_v<const QFlags<HalvaneUploadPolicyOption>,
                             decltype(HalvaneUploadTask::DEFAULT_UPLOAD_POLICY_OPTIONS)>);
static_assert(int(HalvaneUploadTask::UploadDataType::RegularFile) == 0);
static_assert(int(HalvaneUploadTask::UploadDataType::Folder) == 1);
static_assert(int(HalvaneUploadTask::UploadDataType::SampleData) == 2);

TEST(UploadTaskFamily, EveryConstructorPassesItsArgumentsOn) {
    QObject parent;
    const auto* const named = new SmallestUpload(QStringLiteral("Upload:Some"), &parent);
    EXPECT_EQ(named->name(), QStringLiteral("Upload:Some"));
    EXPECT_EQ(named->parent(), &parent);
    const auto* const unnamed = new SmallestUpload(&parent);
    EXPECT_EQ(unnamed->parent(), &parent);
    EXPECT_TRUE(unnamed->name().isEmpty());
    const SmallestUpload orphan;
    EXPECT_EQ(orphan.parent(), nullptr);
    EXPECT_TRUE(orphan.name().isEmpty());
}

TEST(UploadTaskFamily, TheRootHasAMetaObjectWithoutSignalsAndSlots) {
    const QMetaObject& root = HalvaneUploadTask::staticMetaObject;
    EXPECT_STREQ(root.className(), "orx::HalvaneUploadTask");
    EXPECT_EQ(root.superClass(), &HalvaneComplexTask::staticMetaObject);
    EXPECT_EQ(root.methodCount(), root.methodOffset());
}

TEST(UploadTaskFamily, AConcreteUploadAnswersThroughTheRoot) {
    SmallestUpload upload;
    const HalvaneUploadTask& root = upload;
    EXPECT_EQ(root.uploadDataType(), HalvaneUploadTask::UploadDataType::Folder);
    EXPECT_EQ(root.currentProgress(), 3);
    EXPECT_EQ(root.maxProgress(), 5);
    upload.exec();
    EXPECT_FALSE(upload.waitForFinished().hasError());
}

} // namespace
} // namespace orx
