// The plug-in's upload task as a whole: against the scripted server and the real one it ends alike.
#include "ContractFixture.h"

#include <tasks/HalvaneFileUploadTask.h>

#include <HalvaneHistory.h>

#include <QFile>
#include <QTemporaryDir>

namespace orx::testing {
namespace {

class WholeUploadContract : public ContractTest {
protected:
    QString makeLocalFile(const QByteArray& content) const {
        const QString path = m_dir.filePath(QStringLiteral("run.raw"));
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        EXPECT_EQ(file.write(content), content.size());
        return path;
    }

    Error upload(const QString& path, int target, HalvaneResourceReference::ItemType type,
                 HalvaneUploadPolicyOptions options) {
        const auto parameters = HalvaneFileUploadParameters::create(
            path, target, type, QStringLiteral("first"),
            QList<HalvaneCompactExtendedMetaDataValue>{{QStringLiteral("operator"), QStringLiteral("anna")}},
            options, std::nullopt);
        EXPECT_FALSE(parameters.hasError());
        m_task = HalvaneFileUploadTask::create(*parameters);
        m_task->setCachedOnFinished(false);
        m_task->exec();
        return m_task->waitForFinished();
    }

    HalvaneApiReference uploaded() const { return m_task->uploadedFile()->reference(); }

    QTemporaryDir m_dir;
    std::unique_ptr<HalvaneFileUploadTask> m_task;
};
ORX_CONTRACT(WholeUploadContract);

TEST_P(WholeUploadContract, AFileGoesUpAndIsFoundIdentical) {
    const QByteArray content = "the measurement of a long night";
    ASSERT_FALSE(upload(makeLocalFile(content), Root, HalvaneResourceReference::ItemType::Folder,
                        HalvaneUploadTask::DEFAULT_UPLOAD_POLICY_OPTIONS)
                     .hasError());
    EXPECT_EQ(m_task->currentProgress(), 103);
    const QString file = QStringLiteral("/files/%1").arg(uploaded().fileId);
    EXPECT_EQ(get(file + QStringLiteral("/versions/1/content")).body, content);
    EXPECT_EQ(get(file).data()[QStringLiteral("alias")].toString(), QStringLiteral("first"));
    EXPECT_EQ(
        get(file + QStringLiteral("/extended-metadata")).data()[QStringLiteral("values")].toArray().size(),
        1);
}

TEST_P(WholeUploadContract, AnEmptyFileGoesUp) {
    ASSERT_FALSE(upload(makeLocalFile({}), Root, HalvaneResourceReference::ItemType::Folder,
                        HalvaneUploadTask::DEFAULT_UPLOAD_POLICY_OPTIONS)
                     .hasError());
    EXPECT_EQ(
        get(QStringLiteral("/files/%1").arg(uploaded().fileId)).data()[QStringLiteral("size")].toInt(-1), 0);
}

TEST_P(WholeUploadContract, AFileOfTheSameNameGetsANewVersion) {
    const int older = makeFile(QStringLiteral("run.raw"), "one");
    const int newer = makeFile(QStringLiteral("run.raw"), "two");
    ASSERT_FALSE(upload(makeLocalFile("third"), Root, HalvaneResourceReference::ItemType::Folder,
                        HalvaneUploadPolicyOption::NewVersionByName)
                     .hasError());
    EXPECT_LT(older, newer);
    EXPECT_EQ(uploaded(), (HalvaneApiReference{newer, 2}));
}

TEST_P(WholeUploadContract, AStaleClientIsToldOfTheConflict) {
    const QString path = makeLocalFile("mine");
    const int file = makeFile(QStringLiteral("run.raw"), "old");
    ASSERT_FALSE(HalvaneHistory().setFileVersion(path, file, 1).hasError());
    ASSERT_FALSE(upload(path, file, HalvaneResourceReference::ItemType::File, {}).hasError());
    EXPECT_EQ(uploaded().version, 2);
    addVersion(file, "somebody else's");
    const Error error = upload(path, file, HalvaneResourceReference::ItemType::File, {});
    EXPECT_TRUE(isHalvaneError(error, HalvaneServerErrorCode::VersionConflict));
    EXPECT_EQ(error.errorMessage(), QString());
    EXPECT_EQ(get(QStringLiteral("/files/%1").arg(file)).data()[QStringLiteral("last_version")].toInt(), 3);
}

} // namespace
} // namespace orx::testing
