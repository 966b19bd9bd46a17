#include <ErrorText.h>
#include <ExitCodes.h>
#include <HalvaneError.h>
#include <NetworkError.h>

#include <gtest/gtest.h>

#include <errno.h>

using namespace halvane::host;
using orx::Error;
using orx::ErrorCode;
using orx::ErrorDomain;
using orx::HalvaneServerErrorCode;
using orx::NetworkErrorCode;

TEST(ExitCodes, EqualNumbersOfDifferentDomainsAreDifferentThings) {
    EXPECT_EQ(exitCodeOf(ErrorDomain::General, 4), ExitCode::LocalRead);
    EXPECT_EQ(exitCodeOf(ErrorDomain::Server, 4), ExitCode::VersionConflict);
    EXPECT_EQ(exitCodeOf(ErrorDomain::Network, 4), ExitCode::Network);
    EXPECT_EQ(exitCodeOf(ErrorDomain::General, 0), ExitCode::Success);
    EXPECT_EQ(exitCodeOf(Error()), ExitCode::Success);
}

TEST(ExitCodes, UnknownCodesFallBackToTheirDomain) {
    EXPECT_EQ(exitCodeOf(ErrorDomain::General, 999), ExitCode::General);
    EXPECT_EQ(exitCodeOf(ErrorDomain::Server, 999), ExitCode::ServerTrouble);
    EXPECT_EQ(exitCodeOf(ErrorDomain::Network, 999), ExitCode::Network);
    EXPECT_EQ(exitCodeOf(ErrorDomain::OperatingSystem, EIO), ExitCode::General);
    EXPECT_EQ(errorName(ErrorDomain::Server, 999), QStringLiteral("Other"));
}

TEST(ExitCodes, EveryCodeOfTheDomainsHasARow) {
    for (int code = 1; code <= int(ErrorCode::Busy); ++code)
        EXPECT_NE(errorName(ErrorDomain::General, code), QStringLiteral("Other")) << code;
    for (int code = 1; code <= int(HalvaneServerErrorCode::RangeNotSatisfiable); ++code)
        EXPECT_NE(errorName(ErrorDomain::Server, code), QStringLiteral("Other")) << code;
    for (int code = 1; code <= int(NetworkErrorCode::HttpStatus); ++code)
        EXPECT_NE(errorName(ErrorDomain::Network, code), QStringLiteral("Other")) << code;
}

TEST(ExitCodes, AFullDiskHereIsNotAFullServer) {
    EXPECT_EQ(exitCodeOf(ErrorDomain::OperatingSystem, ENOSPC), ExitCode::LocalWrite);
    EXPECT_EQ(exitCodeOf(ErrorDomain::General, int(ErrorCode::StorageFull)), ExitCode::LocalWrite);
    EXPECT_EQ(exitCodeOf(ErrorDomain::Server, int(HalvaneServerErrorCode::StorageFull)),
              ExitCode::ServerTrouble);
}

TEST(ExitCodes, TheDocumentedTableIsInOrderAndComplete) {
    int last = -1;
    for (const ExitCodeInfo& info : exitCodes()) {
        EXPECT_GT(int(info.code), last);
        last = int(info.code);
        EXPECT_GT(strlen(info.meaning), 5U);
    }
    EXPECT_EQ(last, 130);
    EXPECT_EQ(exitCodes().size(), 16U);
}

TEST(ErrorText, EmptyMessagesGetOneForTheirCode) {
    EXPECT_EQ(errorText(orx::halvaneError(HalvaneServerErrorCode::VersionConflict, QString())),
              QStringLiteral("The file has a newer version on the server than this machine last had."));
    EXPECT_EQ(errorText(Error(ErrorDomain::Network, int(NetworkErrorCode::TimedOut), QString())),
              QStringLiteral("The server cannot be reached, or the connection was lost (TimedOut)."));
    EXPECT_EQ(errorText(Error()), QString());
}

TEST(ErrorText, RemediesFollowTheMessage) {
    EXPECT_EQ(errorText(orx::halvaneError(HalvaneServerErrorCode::NotAuthenticated,
                                          QStringLiteral("The token has expired"))),
              QStringLiteral("The token has expired. Log in with: halvane login URL --user NAME"));
}

// The words of a message decide nothing: who raised an error says what helps where it is not always the same.
TEST(ErrorText, WhatIsAddedToAMessageDependsOnItsCodeAlone) {
    const QString text = QStringLiteral("What happened.");
    const QString again = QStringLiteral("What happened; try again.");
    const QString login = QStringLiteral(" Log in with: halvane login URL --user NAME");
    for (int code = 1; code <= int(ErrorCode::Busy); ++code) {
        const QString added = ErrorCode(code) == ErrorCode::NotAuthenticated ? login : QString();
        EXPECT_EQ(errorText(Error(ErrorCode(code), text)), text + added) << code;
        EXPECT_EQ(errorText(Error(ErrorCode(code), again)), again + added) << code;
    }
}

TEST(ErrorText, AnotherMessageKeepsDomainCodeAndWarnings) {
    Error conflict = orx::halvaneError(HalvaneServerErrorCode::VersionConflict, QString());
    conflict.addWarning(QStringLiteral("beware"));
    const Error explained = withMessage(conflict, QStringLiteral("why"));
    EXPECT_TRUE(isHalvaneError(explained, HalvaneServerErrorCode::VersionConflict));
    EXPECT_EQ(explained.errorMessage(), QStringLiteral("why"));
    EXPECT_EQ(explained.warnings(), orx::Warnings{QStringLiteral("beware")});
}
