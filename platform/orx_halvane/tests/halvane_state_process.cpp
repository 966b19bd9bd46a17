// A process beside a test that works on the same history and journal. The arguments are a server and one of:
// - hold PATH FOLDER: acquires the record of an upload, prints row and key, keeps it until its input ends
// - record PATH COUNT: records version 1 of the file ids 1 to COUNT
// - acquire PATH COUNT: acquires records for the folders 1 to COUNT, keeps them until its input ends
#include "HalvaneConnection.h"
#include "HalvaneHistory.h"
#include "HalvaneUploadJournal.h"

#include <QCoreApplication>

#include <cstdio>

using namespace orx;

namespace {

Result<HalvaneUploadRecord> acquire(const QString& path, int folderId) {
    auto parameters =
        HalvaneFileUploadParameters::create(path, folderId, HalvaneResourceReference::ItemType::Folder,
                                            QString(), std::nullopt, {}, std::nullopt);
    if (parameters.hasError())
        return std::move(parameters).error();
    auto record = HalvaneUploadJournal::describe(*parameters);
    if (record.hasError())
        return record;
    return HalvaneUploadJournal::acquire(*record);
}

void waitForEndOfInput() {
    while (std::getchar() != EOF) {
    }
}

Error hold(const QString& path, int folderId) {
    const auto record = acquire(path, folderId);
    if (record.hasError())
        return record.error();
    std::printf("%lld %s\n", static_cast<long long>(record->rowId), record->idempotencyKey.constData());
    std::fflush(stdout);
    waitForEndOfInput();
    return Error();
}

Error work(const QString& command, const QString& path, int number) {
    if (command == QStringLiteral("hold"))
        return hold(path, number);
    for (int i = 1; i <= number; ++i) {
        if (command == QStringLiteral("record")) {
            ORX_RETURN_ON_ERROR(HalvaneHistory().setFileVersion(path, i, 1));
        } else {
            const auto record = acquire(path, i);
            if (record.hasError())
                return record.error();
        }
    }
    if (command == QStringLiteral("acquire"))
        waitForEndOfInput();
    return Error();
}

} // namespace

int main(int argc, char** argv) {
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 5)
        return 2;
    HalvaneConnection::instance().setSettings(
        HalvaneSettings(HalvaneMachineSettings(QUrl(arguments.at(1))), HalvaneUserSettings()));
    HalvaneConnection::instance().setCredentials(QStringLiteral("anna"), "token");
    const Error error = work(arguments.at(2), arguments.at(3), arguments.at(4).toInt());
    if (error.hasError())
        std::fprintf(stderr, "%s\n", qPrintable(error.traceText()));
    return error.hasError() ? 1 : 0;
}
