// Uploads a directory into the root folder with a token of the environment, for tests that end it half-way.
// usage: HALVANE_TOKEN=... tree_uploader URL USER DIRECTORY
#include <HalvaneConnection.h>
#include <HalvaneFolderUploadTask.h>

#include <QCoreApplication>

int main(int argc, char** argv) {
    using namespace orx;
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    HalvaneConnection& connection = HalvaneConnection::instance();
    connection.setSettings(
        HalvaneSettings(HalvaneMachineSettings(QUrl(arguments.value(1))), HalvaneUserSettings()));
    connection.setCredentials(arguments.value(2), qgetenv("HALVANE_TOKEN"));
    HalvaneFolderUploadTask task(arguments.value(3), 1, {}, HalvaneUploadTask::DEFAULT_UPLOAD_POLICY_OPTIONS,
                                 nullptr);
    task.exec();
    return task.waitForFinished().hasError() ? 1 : 0;
}
