#include "RunSummaries.h"

#include "ByteStream.h"
#include "DirectoryNames.h"
#include "MsDataFileUtils.h"
#include "SummaryReaders.h"
#include "Texts.h"

#include <QFile>

namespace orx {

namespace {

Result<RunSummary> summariseDocument(const QString& path, const MsDataCheck& check,
                                     const std::stop_token& stop) {
    auto stream = openUnpacked(path);
    if (stream.hasError())
        return std::move(stream).error();
    if (check.kind == MsDataKind::MzXml)
        return summariseMzXml(**stream, stop);
    if (check.kind == MsDataKind::Mgf)
        return summariseMgf(**stream, stop);
    if (check.companions.isEmpty())
        return summariseMzMl(**stream, nullptr, stop);
    const auto companion = ReadOnlyFile::open(check.companions.front());
    if (companion.hasError())
        return companion.error();
    return summariseMzMl(**stream, companion->get(), stop);
}

Result<RunSummary> summariseCatalogue(const QString& path, const std::stop_token& stop) {
    const QByteArray directory = QFile::encodeName(path);
    const auto names = DirectoryNames::of(directory);
    const auto found = names ? names->find(QStringLiteral("analysis.tdf")) : std::vector<QByteArray>();
    if (found.empty())
        return Error(ErrorCode::NotFound, msText("Its catalogue \"analysis.tdf\" is missing."));
    return summariseFrames(QFile::decodeName(directory + '/' + found.front()), stop);
}

} // namespace

Result<RunSummary> summarise(const QString& path, std::stop_token stop) {
    const std::stop_token token = std::move(stop);
    if (token.stop_requested())
        return Error(ErrorCode::Canceled, msText("Canceled."));
    const MsDataCheck check = MsDataFileUtils::checkMsData(path);
    if (!check.isValid())
        return Error(ErrorCode::InvalidArgument, check.reason);
    switch (check.kind) {
    case MsDataKind::MzMl:
    case MsDataKind::ImzMl:
    case MsDataKind::MzXml:
    case MsDataKind::Mgf:
        return summariseDocument(path, check, token);
    case MsDataKind::FrameCatalogue:
        return summariseCatalogue(path, token);
    default:
        return Error(ErrorCode::InvalidArgument, msText("Raw data of this kind cannot be summed up."));
    }
}

} // namespace orx
