// Which upload a path gets.
#include "UploadFixture.h"

#include <tasks/HalvaneFolderUploadTask.h>
#include <tasks/HalvaneSampleDataUploadTask.h>
#include <tasks/HalvaneVonkFileUploadTask.h>

#include <QDir>

namespace orx::testing {
namespace {

class UploadFactory : public UploadTest {
protected:
    static Result<std::unique_ptr<HalvaneUploadTask>>
    create(const QString& path, ItemType targetType = ItemType::Folder, int targetId = 7,
           const std::optional<QList<HalvaneExtendedMetaDataValue>>& metadata = std::nullopt,
           const std::optional<QString>& name = std::nullopt) {
        return HalvaneUploadTask::create(path, targetId, targetType, QStringLiteral("alias"), metadata,
                                         {4, 5}, Replace, name);
    }
    static std::unique_ptr<HalvaneUploadTask> made(const QString& path,
                                                   ItemType targetType = ItemType::Folder) {
        auto task = create(path, targetType);
        EXPECT_FALSE(task.hasError()) << qPrintable(task.error().traceText());
        return task.hasError() ? nullptr : std::move(*task);
    }
    //! The class of what is made, and the end of its name.
    static QString kindOf(const QString& path, ItemType targetType = ItemType::Folder) {
        const auto task = made(path, targetType);
        return task ? QString::fromLatin1(task->metaObject()->className()) : QString();
    }
    QString directory(const QString& name) const {
        EXPECT_TRUE(QDir().mkpath(filePath(name)));
        return filePath(name);
    }
    QString rawFile() const {
        const QString path = filePath(QStringLiteral("small.mgf"));
        EXPECT_TRUE(QFile::exists(path) || QFile::copy(QStringLiteral(MS_TEST_DATA "/small.mgf"), path));
        return path;
    }
    //! An acquisition that is a directory.
    QString rawDirectory(const QString& name) const {
        const QString path = directory(name);
        for (const auto* inner : {"analysis.tdf", "analysis.tdf_bin"})
            EXPECT_TRUE(
                QFile::copy(QStringLiteral(MS_TEST_DATA "/sqlite-frames.d/") + QString::fromLatin1(inner),
                            path + u'/' + QString::fromLatin1(inner)));
        return path;
    }

    ErrorLog errors;
};

TEST_F(UploadFactory, AFileIsUploadedAsItIs) {
    EXPECT_EQ(kindOf(makeFile(QStringLiteral("notes.txt"))), QStringLiteral("orx::HalvaneFileUploadTask"));
    EXPECT_EQ(kindOf(makeFile(QStringLiteral("notes.txt")), ItemType::File),
              QStringLiteral("orx::HalvaneFileUploadTask"));
}

TEST_F(UploadFactory, APackedAcquisitionIsNeverTakenForRawData) {
    EXPECT_EQ(kindOf(makeFile(QStringLiteral("run.vonk"))), QStringLiteral("orx::HalvaneVonkFileUploadTask"));
    EXPECT_TRUE(QFile::copy(rawFile(), filePath(QStringLiteral("raw.vonk"))));
    EXPECT_EQ(kindOf(filePath(QStringLiteral("raw.vonk"))), QStringLiteral("orx::HalvaneVonkFileUploadTask"));
}

TEST_F(UploadFactory, RawDataIsPackedWhetherFileOrDirectory) {
    EXPECT_EQ(kindOf(rawFile()), QStringLiteral("orx::HalvaneSampleDataUploadTask"));
    EXPECT_EQ(kindOf(rawDirectory(QStringLiteral("run.d"))),
              QStringLiteral("orx::HalvaneSampleDataUploadTask"));
    EXPECT_EQ(kindOf(filePath(QStringLiteral("run.d")), ItemType::File),
              QStringLiteral("orx::HalvaneSampleDataUploadTask"));
}

TEST_F(UploadFactory, ADirectoryIsAFolder) {
    const QString path = directory(QStringLiteral("raw"));
    EXPECT_EQ(kindOf(path), QStringLiteral("orx::HalvaneFolderUploadTask"));
    EXPECT_EQ(kindOf(path, ItemType(2)), QStringLiteral("orx::HalvaneFolderUploadTask"));
    EXPECT_EQ(kindOf(rawDirectory(QStringLiteral("packed.vonk"))),
              QStringLiteral("orx::HalvaneFolderUploadTask"));
}

TEST_F(UploadFactory, AFolderCannotReplaceAFile) {
    const auto task = create(directory(QStringLiteral("empty")), ItemType::File);
    EXPECT_TRUE(task.error().is(ErrorCode::General));
    EXPECT_EQ(task.error().errorMessage(),
              QStringLiteral("You cannot upload a folder if the target is a file."));
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("HalvaneUploadTask::create")));
}

TEST_F(UploadFactory, AMissingPathIsNamed) {
    const QString path = QStringLiteral("no such/%1 thing");
    const auto task = create(path);
    EXPECT_TRUE(task.error().is(ErrorCode::InvalidArgument));
    EXPECT_EQ(task.error().errorMessage(),
              QStringLiteral("Cannot create a upload task for \"no such/%1 thing\" path."));
    const ContextTranslator translator;
    EXPECT_EQ(create(QStringLiteral("x")).error().errorMessage(),
              QStringLiteral("orx::HalvaneUploadTask|Cannot create a upload task for \"x\" path."));
}

TEST_F(UploadFactory, ParametersThatCannotBeMadeAreTheError) {
    const auto task = create(makeFile(QStringLiteral("a")), ItemType::Folder, 0);
    EXPECT_TRUE(task.error().is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("HalvaneUploadTask::create")));
    EXPECT_FALSE(create(directory(QStringLiteral("raw")), ItemType::Folder, 0).hasError())
        << "a folder has none";
}

TEST_F(UploadFactory, ASingleUploadGetsEverythingButTheGroups) {
    const QList<HalvaneExtendedMetaDataValue> metadata{
        {QStringLiteral("operator"), QStringLiteral("anna"), QString()}};
    for (const QString& path : {makeFile(QStringLiteral("a")), rawFile()}) {
        auto task = create(path, ItemType::File, 12, metadata, QStringLiteral("b"));
        ASSERT_FALSE(task.hasError());
        EXPECT_EQ((*task)->parent(), nullptr);
        const auto parameters = qobject_cast<HalvaneFileUploadTaskBase*>(task->get())->parameters();
        EXPECT_EQ(parameters.localPath, path);
        EXPECT_EQ(parameters.targetId, 12);
        EXPECT_EQ(parameters.targetItemType, ItemType::File);
        EXPECT_EQ(parameters.alias, QStringLiteral("alias"));
        ASSERT_TRUE(parameters.extendedMetadata.has_value());
        EXPECT_EQ(*parameters.extendedMetadata, (QList<HalvaneCompactExtendedMetaDataValue>{
                                                    {QStringLiteral("operator"), QStringLiteral("anna")}}));
        EXPECT_EQ(parameters.policyOptions, Replace);
        EXPECT_EQ(parameters.targetFileName, QStringLiteral("b"));
        EXPECT_EQ((*task)->maxProgress(), 103);
    }
}

} // namespace
} // namespace orx::testing
