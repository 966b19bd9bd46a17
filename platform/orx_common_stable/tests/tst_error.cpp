#include "Error.h"
#include "ErrorCancelable.h"
#include "NumberUtils.h"
#include "Result.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

using namespace orx;

TEST(Error, IsEmptyByDefault) {
    const Error error;
    EXPECT_FALSE(error.hasError());
    EXPECT_EQ(error.code(), 0);
    EXPECT_EQ(error.errorCode(), ErrorCode::NoError);
    EXPECT_TRUE(error.errorMessage().isEmpty());
    EXPECT_TRUE(error.traceText().isEmpty());
}

TEST(Error, KeepsCodesOfDifferentDomainsApart) {
    const Error general(ErrorCode::FileNotReadable, QStringLiteral("file"));
    const Error server(ErrorDomain::Server, 4, QString());
    EXPECT_EQ(general.code(), server.code());
    EXPECT_TRUE(general.is(ErrorCode::FileNotReadable));
    EXPECT_FALSE(server.is(ErrorCode::FileNotReadable));
    EXPECT_TRUE(server.is(ErrorDomain::Server, 4));
    EXPECT_EQ(server.errorCode(), ErrorCode::General);
}

TEST(Error, CodeZeroIsNoError) {
    EXPECT_FALSE(Error(ErrorCode::NoError, QStringLiteral("dropped")).hasError());
    EXPECT_FALSE(Error(ErrorDomain::Server, 0, QStringLiteral("dropped")).hasError());
}

TEST(Error, CollectsTheTraceInnermostFirst) {
    Error error(ErrorCode::General, QStringLiteral("broken"));
    error.ecatch("inner()", "inner.cpp", 1);
    error.ecatch("outer()", "outer.cpp", 2);
    ASSERT_EQ(error.trace().size(), 2);
    EXPECT_EQ(error.trace().at(0).function, QStringLiteral("inner()"));
    EXPECT_EQ(error.trace().at(1).line, 2);
    EXPECT_TRUE(error.traceText().startsWith(QStringLiteral("broken (general error 1)")));
    EXPECT_TRUE(error.traceText().contains(QStringLiteral("outer.cpp:2")));
}

TEST(Error, StampsNothingWithoutAnError) {
    Error error;
    error.ecatch("f()", "f.cpp", 1);
    EXPECT_TRUE(error.trace().isEmpty());
}

TEST(Error, CopiesAreIndependent) {
    Error first(ErrorCode::General, QStringLiteral("one"));
    const Error second = first;
    first.addWarning(QStringLiteral("late"));
    first.ecatch("f()", "f.cpp", 1);
    EXPECT_TRUE(second.warnings().isEmpty());
    EXPECT_TRUE(second.trace().isEmpty());
}

TEST(Error, MessagesWithPlaceholdersSurviveInTheTraceText) {
    const Error error(ErrorCode::General, QStringLiteral("100%1 %2 done"));
    EXPECT_TRUE(error.traceText().startsWith(QStringLiteral("100%1 %2 done (general error 1)")));
}

TEST(Error, WarningsNeedNoError) {
    Error error;
    error.addWarning(QStringLiteral("careful"));
    EXPECT_FALSE(error.hasError());
    EXPECT_EQ(error.warnings(), Warnings{QStringLiteral("careful")});
}

TEST(Error, NamesTheReasonOfTheOperatingSystem) {
    const Error error = Error::fromErrno(ENOSPC, QStringLiteral("Could not write"));
    EXPECT_TRUE(error.is(ErrorDomain::OperatingSystem, ENOSPC));
    EXPECT_TRUE(error.errorMessage().contains(QStringLiteral("No space left")));
}

TEST(Result, HoldsMoveOnlyValues) {
    Result<std::unique_ptr<int>> result = std::make_unique<int>(5);
    ASSERT_FALSE(result.hasError());
    const std::unique_ptr<int> taken = std::move(result).value();
    EXPECT_EQ(*taken, 5);
}

TEST(Result, HoldsAnErrorAndStampsIt) {
    Result<int> result = Error(ErrorCode::InvalidArgument, QStringLiteral("no"));
    ASSERT_TRUE(result.hasError());
    ORX_ECATCH(result);
    EXPECT_EQ(result.error().trace().size(), 1);
    EXPECT_EQ(result.valueOr(7), 7);
}

TEST(Result, MadeOfAnEmptyErrorIsAFailure) {
    const Result<int> result = Error();
    EXPECT_TRUE(result.hasError());
    EXPECT_TRUE(result.error().is(ErrorCode::General));
}

TEST(Result, CarriesWarningsBesideItsValue) {
    Result<QString> result = QStringLiteral("value");
    result.addWarning(QStringLiteral("careful"));
    EXPECT_FALSE(result.hasError());
    EXPECT_EQ(result.warnings().size(), 1);
}

namespace {
class Thing : public ErrorCancelable {
public:
    void restart() { resetErrorAndCanceled(); }
};
} // namespace

TEST(ErrorCancelable, CancellingSetsTheErrorAtOnceAndOnlyOnce) {
    Thing thing;
    int signals = 0;
    QObject::connect(&thing, &ErrorCancelable::canceled, [&] {
        ++signals;
        EXPECT_TRUE(thing.hasError());
        EXPECT_TRUE(thing.isCanceled());
    });
    thing.cancel();
    thing.cancel();
    EXPECT_EQ(signals, 1);
    EXPECT_TRUE(thing.error().isCanceled());
    thing.restart();
    EXPECT_FALSE(thing.hasError());
    EXPECT_FALSE(thing.isCanceled());
}

TEST(ErrorCancelable, CancellingKeepsAnEarlierError) {
    Thing thing;
    thing.setError(Error(ErrorCode::General, QStringLiteral("first")));
    thing.cancel();
    EXPECT_EQ(thing.error().errorMessage(), QStringLiteral("first"));
    EXPECT_TRUE(thing.isCanceled());
}

TEST(NumberUtils, TakesWholeNumbersOnly) {
    EXPECT_EQ(NumberUtils::toInt(QStringLiteral("-12")).value(), -12);
    for (const QString& text :
         {QStringLiteral("1a"), QStringLiteral(""), QStringLiteral("2147483648"), QStringLiteral("1.0")}) {
        const Result<int> result = NumberUtils::toInt(text);
        ASSERT_TRUE(result.hasError()) << qPrintable(text);
        EXPECT_TRUE(result.error().is(ErrorCode::InvalidArgument));
        EXPECT_EQ(result.errorMessage(), text + QStringLiteral(" is not an integer number"));
    }
}
