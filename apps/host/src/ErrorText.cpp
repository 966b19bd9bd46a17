#include "ErrorText.h"

#include "ExitCodes.h"

#include <HalvaneError.h>
#include <NetworkError.h>

namespace halvane::host {

using orx::Error;
using orx::ErrorCode;
using orx::ErrorDomain;
using orx::HalvaneServerErrorCode;

namespace {

QString meaningOf(ExitCode code) {
    for (const ExitCodeInfo& info : exitCodes()) {
        if (info.code == code)
            return QString::fromUtf8(info.meaning);
    }
    return {};
}

QString generalMessage(const Error& error) {
    if (isHalvaneError(error, HalvaneServerErrorCode::VersionConflict))
        return QStringLiteral("The file has a newer version on the server than this machine last had.");
    const QString meaning = meaningOf(exitCodeOf(error));
    return QStringLiteral("%1%2 (%3).")
        .arg(meaning.left(1).toUpper(), meaning.mid(1), errorName(error.domain(), error.code()));
}

QString remedy(const Error& error) {
    if (error.is(ErrorCode::NotAuthenticated) ||
        isHalvaneError(error, HalvaneServerErrorCode::NotAuthenticated))
        return QStringLiteral("Log in with: halvane login URL --user NAME");
    if (error.is(ErrorDomain::Network, int(orx::NetworkErrorCode::TlsFailed)))
        return QStringLiteral("For a server whose certificate this system does not know, log in with: "
                              "halvane login URL --user NAME --ca-file FILE");
    return {};
}

} // namespace

QString joinedSentences(const QString& text, const QString& more) {
    if (text.isEmpty() || more.isEmpty())
        return text + more;
    const bool ended = text.endsWith(u'.') || text.endsWith(u'!') || text.endsWith(u'?');
    return text + (ended ? QStringLiteral(" ") : QStringLiteral(". ")) + more;
}

QString errorText(const Error& error) {
    if (!error.hasError())
        return {};
    const QString own = error.errorMessage().trimmed();
    return joinedSentences(own.isEmpty() ? generalMessage(error) : own, remedy(error));
}

Error withMessage(const Error& error, const QString& message) {
    Error changed(error.domain(), error.code(), message);
    changed.addWarnings(error.warnings());
    return changed;
}

} // namespace halvane::host
