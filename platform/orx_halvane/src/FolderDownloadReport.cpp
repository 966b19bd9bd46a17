#include "FolderDownloadReport.h"

#include "HalvaneError.h"

#include <NetworkError.h>

#include <QCoreApplication>

#include <algorithm>
#include <cerrno>

namespace orx {

namespace {

QString translated(const char* text) {
    return QCoreApplication::translate("orx::FolderDownloadReport", text);
}

bool isNetworkError(const Error& error, NetworkErrorCode code) {
    return error.is(ErrorDomain::Network, int(code));
}

//! No other item would do better.
bool concernsAll(const Error& error) {
    return error.is(ErrorCode::NotAuthenticated) ||
           isHalvaneError(error, HalvaneServerErrorCode::NotAuthenticated) ||
           isNetworkError(error, NetworkErrorCode::ConnectionFailed) ||
           isNetworkError(error, NetworkErrorCode::TlsFailed);
}

//! The item is hardly to blame.
bool concernsMany(const Error& error) {
    return error.domain() == ErrorDomain::Network || error.is(ErrorCode::StorageFull) ||
           error.is(ErrorDomain::OperatingSystem, ENOSPC) || error.is(ErrorDomain::OperatingSystem, EDQUOT);
}

QString described(const HalvaneDownloadFailure& failure) {
    return translated("\"%1\" could not be downloaded: %2").arg(failure.path, failure.error.errorMessage());
}

} // namespace

void FolderDownloadReport::addFailure(const QString& path, const Error& error) {
    m_failures.append({path, error});
    m_inARow = concernsMany(error) ? m_inARow + 1 : 0;
    m_hopeless = m_hopeless || concernsAll(error) || m_inARow >= hopelessInARow;
}

void FolderDownloadReport::addWarnings(const Warnings& warnings) {
    const auto room = std::max<qsizetype>(0, toldAsWarnings - m_warnings.size());
    m_warnings += warnings.mid(0, room);
    m_untoldWarnings += int(std::max<qsizetype>(0, warnings.size() - room));
}

Error FolderDownloadReport::outcome(int notTried) const {
    Error error = firstFailure(notTried);
    tellOthers(error);
    error.addWarnings(m_warnings);
    if (m_untoldWarnings > 0)
        error.addWarning(translated("There are %1 more warnings.").arg(m_untoldWarnings));
    return error;
}

Error FolderDownloadReport::firstFailure(int notTried) const {
    if (m_failures.isEmpty())
        return Error();
    const HalvaneDownloadFailure& first = m_failures.front();
    QString message = described(first);
    if (m_failures.size() > 1)
        message += u' ' + translated("That is the first of %1 failures.").arg(m_failures.size());
    if (m_hopeless)
        message +=
            u' ' + translated("The download was given up; %1 listed files were not tried.").arg(notTried);
    return Error(first.error.domain(), first.error.code(), message);
}

void FolderDownloadReport::tellOthers(Error& outcome) const {
    const auto others = m_failures.mid(1);
    for (const HalvaneDownloadFailure& failure : others.mid(0, toldAsWarnings))
        outcome.addWarning(described(failure));
    if (others.size() > toldAsWarnings)
        outcome.addWarning(translated("%1 more files or folders could not be downloaded.")
                               .arg(others.size() - toldAsWarnings));
}

} // namespace orx
