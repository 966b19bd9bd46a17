#include <HalvaneFileUploadTask.h>

#include <QCoreApplication>

#include <optional>

using namespace orx;

int main(int argc, char** argv) {
    const QCoreApplication application(argc, argv);
    const auto parameters = HalvaneFileUploadParameters::create(
        QStringLiteral("/no/such/file"), 1, HalvaneResourceReference::ItemType::Folder, QString(),
        std::optional<QList<HalvaneCompactExtendedMetaDataValue>>(),
        HalvaneUploadTask::DEFAULT_UPLOAD_POLICY_OPTIONS, std::nullopt);
    if (parameters.hasError())
        return 1;
    const auto task = HalvaneFileUploadTask::create(*parameters);
    task->exec();
    return task->waitForFinished().is(ErrorCode::InvalidArgument) && task->maxProgress() == 102 ? 0 : 1;
}
