#include "ExitCodes.h"

#include <HalvaneError.h>
#include <NetworkError.h>

#include <algorithm>
#include <array>

#include <errno.h>

namespace halvane::host {

using orx::ErrorCode;
using orx::ErrorDomain;
using orx::HalvaneServerErrorCode;
using orx::NetworkErrorCode;

namespace {

struct Row {
    ErrorDomain domain;
    int code;
    const char* name;
    ExitCode exitCode;
};

constexpr Row general(ErrorCode code, const char* name, ExitCode exitCode) {
    return {ErrorDomain::General, int(code), name, exitCode};
}

constexpr Row server(HalvaneServerErrorCode code, const char* name, ExitCode exitCode) {
    return {ErrorDomain::Server, int(code), name, exitCode};
}

constexpr Row network(NetworkErrorCode code, const char* name, ExitCode exitCode) {
    return {ErrorDomain::Network, int(code), name, exitCode};
}

constexpr Row system(int code, const char* name, ExitCode exitCode) {
    return {ErrorDomain::OperatingSystem, code, name, exitCode};
}

constexpr std::array rows{
    general(ErrorCode::General, "General", ExitCode::General),
    general(ErrorCode::InvalidArgument, "InvalidArgument", ExitCode::Usage),
    general(ErrorCode::Canceled, "Canceled", ExitCode::Canceled),
    general(ErrorCode::FileNotReadable, "FileNotReadable", ExitCode::LocalRead),
    general(ErrorCode::FileNotWritable, "FileNotWritable", ExitCode::LocalWrite),
    general(ErrorCode::FileChanged, "FileChanged", ExitCode::ContentMismatch),
    general(ErrorCode::ParseError, "ParseError", ExitCode::LocalRead),
    general(ErrorCode::TimedOut, "TimedOut", ExitCode::Network),
    general(ErrorCode::NotAuthenticated, "NotAuthenticated", ExitCode::NotAuthenticated),
    general(ErrorCode::NotFound, "NotFound", ExitCode::LocalRead),
    general(ErrorCode::AlreadyExists, "AlreadyExists", ExitCode::LocalWrite),
    general(ErrorCode::ChecksumMismatch, "ChecksumMismatch", ExitCode::ContentMismatch),
    general(ErrorCode::StorageFull, "StorageFull", ExitCode::LocalWrite),
    general(ErrorCode::Busy, "Busy", ExitCode::General),
    server(HalvaneServerErrorCode::BadRequest, "BadRequest", ExitCode::RefusedByServer),
    server(HalvaneServerErrorCode::NotAuthenticated, "NotAuthenticated", ExitCode::NotAuthenticated),
    server(HalvaneServerErrorCode::NotFound, "NotFound", ExitCode::NotFoundOnServer),
    server(HalvaneServerErrorCode::VersionConflict, "VersionConflict", ExitCode::VersionConflict),
    server(HalvaneServerErrorCode::NoPrivilege, "NoPrivilege", ExitCode::NoPrivilege),
    server(HalvaneServerErrorCode::InvalidName, "InvalidName", ExitCode::RefusedByServer),
    server(HalvaneServerErrorCode::ChecksumMismatch, "ChecksumMismatch", ExitCode::ContentMismatch),
    server(HalvaneServerErrorCode::UploadIncomplete, "UploadIncomplete", ExitCode::RefusedByServer),
    server(HalvaneServerErrorCode::UploadGone, "UploadGone", ExitCode::RefusedByServer),
    server(HalvaneServerErrorCode::StorageFull, "StorageFull", ExitCode::ServerTrouble),
    server(HalvaneServerErrorCode::TooManyRequests, "TooManyRequests", ExitCode::ServerTrouble),
    server(HalvaneServerErrorCode::Internal, "Internal", ExitCode::ServerTrouble),
    server(HalvaneServerErrorCode::IdempotencyMismatch, "IdempotencyMismatch", ExitCode::RefusedByServer),
    server(HalvaneServerErrorCode::RangeNotSatisfiable, "RangeNotSatisfiable", ExitCode::RefusedByServer),
    network(NetworkErrorCode::ConnectionFailed, "ConnectionFailed", ExitCode::Network),
    network(NetworkErrorCode::ConnectionLost, "ConnectionLost", ExitCode::Network),
    network(NetworkErrorCode::TimedOut, "TimedOut", ExitCode::Network),
    network(NetworkErrorCode::TlsFailed, "TlsFailed", ExitCode::Network),
    network(NetworkErrorCode::InvalidReply, "InvalidReply", ExitCode::NoHalvaneServer),
    network(NetworkErrorCode::InvalidRequest, "InvalidRequest", ExitCode::Usage),
    network(NetworkErrorCode::HttpStatus, "HttpStatus", ExitCode::NoHalvaneServer),
    system(ENOSPC, "StorageFull", ExitCode::LocalWrite),
    system(EDQUOT, "StorageFull", ExitCode::LocalWrite),
    system(EROFS, "ReadOnly", ExitCode::LocalWrite),
    system(EACCES, "AccessDenied", ExitCode::LocalWrite),
    system(ENOENT, "NotFound", ExitCode::LocalRead),
};

const Row* find(ErrorDomain domain, int code) {
    const auto row = std::find_if(rows.begin(), rows.end(), [&](const Row& candidate) {
        return candidate.domain == domain && candidate.code == code;
    });
    return row == rows.end() ? nullptr : &*row;
}

constexpr std::array infos{
    ExitCodeInfo{ExitCode::Success, "success"},
    ExitCodeInfo{ExitCode::General, "failure without a code of its own"},
    ExitCodeInfo{ExitCode::Usage, "an argument, a path or a name is not usable as given"},
    ExitCodeInfo{ExitCode::LocalRead, "a local file does not exist, cannot be read or is damaged"},
    ExitCodeInfo{ExitCode::LocalWrite, "a local file cannot be written, exists already, or the disk is full"},
    ExitCodeInfo{ExitCode::NotAuthenticated, "not logged in, login expired, wrong user name or password"},
    ExitCodeInfo{ExitCode::NotFoundOnServer,
                 "no such file or folder on the server, or none that you may read"},
    ExitCodeInfo{ExitCode::NoPrivilege, "you may read it but not do this to it"},
    ExitCodeInfo{ExitCode::VersionConflict, "the server has a newer version than this machine last had"},
    ExitCodeInfo{ExitCode::RefusedByServer, "the server refuses the name or the request"},
    ExitCodeInfo{ExitCode::Network, "the server cannot be reached, or the connection was lost"},
    ExitCodeInfo{ExitCode::NoHalvaneServer, "what answers is not a Halvane server"},
    ExitCodeInfo{ExitCode::ServerTrouble, "the server is full, overloaded or has a fault"},
    ExitCodeInfo{ExitCode::ContentMismatch,
                 "a file changed while it was sent or packed, or differs from its checksum"},
    ExitCodeInfo{ExitCode::PartlyFailed, "some of what was asked for failed, as listed; the rest is done"},
    ExitCodeInfo{ExitCode::Canceled, "interrupted"},
};

} // namespace

std::span<const ExitCodeInfo> exitCodes() {
    return infos;
}

ExitCode exitCodeOf(ErrorDomain domain, int code) {
    if (code == 0)
        return ExitCode::Success;
    if (const Row* row = find(domain, code))
        return row->exitCode;
    switch (domain) {
    case ErrorDomain::Server:
        return ExitCode::ServerTrouble;
    case ErrorDomain::Network:
        return ExitCode::Network;
    case ErrorDomain::General:
    case ErrorDomain::OperatingSystem:
        break;
    }
    return ExitCode::General;
}

QString errorName(ErrorDomain domain, int code) {
    const Row* row = find(domain, code);
    return QLatin1String(row ? row->name : "Other");
}

} // namespace halvane::host
