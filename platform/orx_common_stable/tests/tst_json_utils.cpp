#include "JsonUtils.h"

#include <gtest/gtest.h>

using namespace orx;

namespace {

QJsonObject sample() {
    return {{QStringLiteral("text"), QStringLiteral("a")},
            {QStringLiteral("number"), 7},
            {QStringLiteral("fraction"), 3.5},
            {QStringLiteral("big"), 5000000000.0},
            {QStringLiteral("object"), QJsonObject()},
            {QStringLiteral("array"), QJsonArray{1}},
            {QStringLiteral("nothing"), QJsonValue::Null},
            {QStringLiteral("yes"), true}};
}

} // namespace

TEST(JsonUtils, ReadsEachType) {
    const QJsonObject o = sample();
    EXPECT_EQ(JsonUtils::stringValue(o, QStringLiteral("text")).value(), QStringLiteral("a"));
    EXPECT_EQ(JsonUtils::intValue(o, QStringLiteral("number")).value(), 7);
    EXPECT_EQ(JsonUtils::int64Value(o, QStringLiteral("big")).value(), 5000000000LL);
    EXPECT_TRUE(JsonUtils::boolValue(o, QStringLiteral("yes")).value());
    EXPECT_TRUE(JsonUtils::objectValue(o, QStringLiteral("object")).value().isEmpty());
    EXPECT_EQ(JsonUtils::arrayValue(o, QStringLiteral("array")).value().size(), 1);
    EXPECT_TRUE(JsonUtils::isNullValue(o, QStringLiteral("nothing")).value());
    EXPECT_FALSE(JsonUtils::isNullValue(o, QStringLiteral("text")).value());
    EXPECT_TRUE(JsonUtils::stringOrNullValue(o, QStringLiteral("nothing")).value().isNull());
}

TEST(JsonUtils, NamesTheMissingKey) {
    const Result<QString> result = JsonUtils::stringValue(sample(), QStringLiteral("absent"));
    ASSERT_TRUE(result.hasError());
    EXPECT_TRUE(result.error().is(ErrorCode::ParseError));
    EXPECT_EQ(result.errorMessage(), QStringLiteral("The key \"absent\" is missing."));
    EXPECT_TRUE(JsonUtils::isNullValue(sample(), QStringLiteral("absent")).hasError());
}

TEST(JsonUtils, RefusesOtherTypesAndNumbersOutOfRange) {
    const QJsonObject o = sample();
    EXPECT_TRUE(JsonUtils::stringValue(o, QStringLiteral("number")).hasError());
    EXPECT_TRUE(JsonUtils::intValue(o, QStringLiteral("fraction")).hasError());
    EXPECT_TRUE(JsonUtils::intValue(o, QStringLiteral("big")).hasError());
    EXPECT_TRUE(JsonUtils::intValue(o, QStringLiteral("text")).hasError());
    EXPECT_TRUE(JsonUtils::objectValue(o, QStringLiteral("array")).hasError());
    EXPECT_TRUE(JsonUtils::arrayValue(o, QStringLiteral("object")).hasError());
    EXPECT_TRUE(JsonUtils::boolValue(o, QStringLiteral("number")).hasError());
    EXPECT_TRUE(JsonUtils::stringOrNullValue(o, QStringLiteral("number")).hasError());
    const QJsonObject edge{{QStringLiteral("over"), 2147483648.0}, {QStringLiteral("low"), -2147483648.0}};
    EXPECT_TRUE(JsonUtils::intValue(edge, QStringLiteral("over")).hasError());
    EXPECT_EQ(JsonUtils::intValue(edge, QStringLiteral("low")).value(), std::numeric_limits<int>::min());
}

TEST(JsonUtils, RefusesNumbersThatMayHaveBeenRounded) {
    const auto read = [](const char* number) {
        const QByteArray text = QByteArray("{\"n\": ") + number + "}";
        return JsonUtils::int64Value(JsonUtils::parseObject(text).value(), QStringLiteral("n"));
    };
    EXPECT_EQ(read("9007199254740991").value(), 9007199254740991LL);
    EXPECT_EQ(read("-9007199254740991").value(), -9007199254740991LL);
    for (const char* number : {"9007199254740992", "9007199254740993", "-9007199254740992",
                               "-9007199254740993", "9007199254740992.0", "9223372036854775807", "1e300"})
        EXPECT_TRUE(read(number).hasError()) << number;
}

TEST(JsonUtils, ParsesOneObjectAndNothingElse) {
    EXPECT_EQ(JsonUtils::parseObject("{\"a\": 1}").value().size(), 1);
    EXPECT_TRUE(JsonUtils::parseObject("[1]").hasError());
    EXPECT_TRUE(JsonUtils::parseObject("{\"a\": ").hasError());
    EXPECT_TRUE(JsonUtils::parseObject("<html></html>").hasError());
    EXPECT_TRUE(JsonUtils::parseObject("").hasError());
}
