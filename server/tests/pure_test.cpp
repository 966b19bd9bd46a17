// The parts without disk and network, by tables.
#include "auth/login_limiter.h"
#include "core/errors.h"
#include "core/hashes.h"
#include "core/json_input.h"
#include "core/json_text.h"
#include "core/names.h"
#include "core/privileges.h"
#include "core/ranges.h"
#include "core/times.h"
#include "http/router.h"

#include <gtest/gtest.h>

namespace halvane::server {

namespace {

ApiError errorOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const ApiError& error) {
        return error;
    }
    return {ErrorCode::Internal, "nothing was thrown", 0};
}

} // namespace

TEST(Names, OrdinaryAndUnusualOnesAreAllowed) {
    for (const std::string name : {"run1.mzML", ".hidden", "...", "trailing  ", " leading", "back\\slash",
                                   "C:", "\xF0\x9F\xA7\xAA.raw", "e\xCC\x81", "\xD8\xA7\xD9\x84",
                                   "\xE2\x80\xAE"
                                   "rtl",
                                   "a\"b", "\xC2\xA0"})
        EXPECT_EQ(nameProblem(name), std::nullopt) << name;
    EXPECT_EQ(nameProblem(std::string(255, 'x')), std::nullopt);
}

TEST(Names, RefusedOnesAreToldWhy) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "is empty"},
        {".", "is '.', which stands for a directory"},
        {"..", "is '..', which stands for a directory"},
        {std::string(256, 'x'), "is longer than 255 bytes"},
        {"a/b", "holds a slash"},
        {std::string("a\0b", 3), "holds a control character"},
        {"a\nb", "holds a control character"},
        {"a\x1F", "holds a control character"},
        {"a\x7F", "holds a control character"},
        {"a\xC2\x80", "holds a control character"},
        {"a\xC2\x9F", "holds a control character"},
        {"\xFF", "is not valid UTF-8"},
        {"\x80", "is not valid UTF-8"},
        {"\xC0\xAF", "is not valid UTF-8"},         // an overlong slash
        {"\xE0\x80\xAF", "is not valid UTF-8"},     // another one
        {"\xED\xA0\x80", "is not valid UTF-8"},     // a surrogate
        {"\xF4\x90\x80\x80", "is not valid UTF-8"}, // above U+10FFFF
        {"a\xE2\x82", "is not valid UTF-8"},        // cut short
    };
    for (const auto& [name, problem] : cases)
        EXPECT_EQ(nameProblem(name), problem)
            << hexText(std::span(reinterpret_cast<const unsigned char*>(name.data()), name.size()));
}

TEST(Ranges, OneRangeIsUnderstoodAndEverythingElseIsTheWhole) {
    using Kind = RangeDecision::Kind;
    const struct {
        std::string header;
        std::uint64_t size;
        Kind kind;
        std::uint64_t offset, length;
    } cases[] = {
        {"bytes=0-9", 100, Kind::Partial, 0, 10},
        {"bytes=10-", 100, Kind::Partial, 10, 90},
        {"bytes=-10", 100, Kind::Partial, 90, 10},
        {"bytes=-200", 100, Kind::Partial, 0, 100},
        {"bytes=90-500", 100, Kind::Partial, 90, 10},
        {"bytes=99-99", 100, Kind::Partial, 99, 1},
        {"bytes=100-", 100, Kind::NotSatisfiable, 0, 0},
        {"bytes=0-", 0, Kind::NotSatisfiable, 0, 0},
        {"bytes=-0", 100, Kind::NotSatisfiable, 0, 0},
        {"bytes=18446744073709551615-", 100, Kind::NotSatisfiable, 0, 0},
        {"", 100, Kind::Whole, 0, 0},
        {"bytes=5-2", 100, Kind::Whole, 0, 0},
        {"bytes=0-1,5-6", 100, Kind::Whole, 0, 0},
        {"bytes=a-b", 100, Kind::Whole, 0, 0},
        {"bytes=-", 100, Kind::Whole, 0, 0},
        {"bytes=1", 100, Kind::Whole, 0, 0},
        {"bytes=99999999999999999999-", 100, Kind::Whole, 0, 0},
        {"items=0-1", 100, Kind::Whole, 0, 0},
    };
    for (const auto& one : cases) {
        const RangeDecision decision = decideRange(one.header, one.size);
        EXPECT_EQ(decision.kind, one.kind) << one.header;
        EXPECT_EQ(decision.range.offset, one.offset) << one.header;
        EXPECT_EQ(decision.range.length, one.length) << one.header;
    }
    EXPECT_EQ(contentRange({10, 5}, 100), "bytes 10-14/100");
    EXPECT_EQ(unsatisfiedRange(100), "bytes */100");
}

TEST(Ranges, ValidatorsAreComparedExactly) {
    EXPECT_TRUE(ifRangeHolds("", "\"a\"", "date"));
    EXPECT_TRUE(ifRangeHolds("\"a\"", "\"a\"", "date"));
    EXPECT_TRUE(ifRangeHolds("date", "\"a\"", "date"));
    EXPECT_FALSE(ifRangeHolds("W/\"a\"", "\"a\"", "date"));
    EXPECT_FALSE(ifRangeHolds("\"b\"", "\"a\"", "date"));
    EXPECT_TRUE(ifNoneMatchNames("\"x\", W/\"a\"", "\"a\""));
    EXPECT_TRUE(ifNoneMatchNames("*", "\"a\""));
    EXPECT_FALSE(ifNoneMatchNames("\"x\"", "\"a\""));
    EXPECT_FALSE(ifNoneMatchNames("", "\"a\""));
}

TEST(Privileges, TextAndSetAreTheSame) {
    EXPECT_EQ(PrivilegeSet::parse("1,2,3")->text(), "1,2,3");
    EXPECT_EQ(PrivilegeSet::parse("3,1")->text(), "1,3");
    EXPECT_EQ(PrivilegeSet::all().text(), "1,2,3,4,5");
    EXPECT_EQ(PrivilegeSet().text(), "");
    for (const char* malformed : {"", "0", "6", "1,", ",1", "1;2", "12", "1,,2", "a"})
        EXPECT_EQ(PrivilegeSet::parse(malformed), std::nullopt) << malformed;
}

TEST(Privileges, TheNearestFolderWithASetOfItsOwnDecides) {
    const PrivilegeSet read = *PrivilegeSet::parse("1");
    const PrivilegeSet write = *PrivilegeSet::parse("1,2");
    const std::vector<FolderLink> chain{
        {1, "/", {}}, {2, "a", {{10, write}}}, {3, "b", {}}, {4, "c", {{11, read}}}, {5, "d", {}}};
    const auto texts = [&](const Identity& who) {
        std::string text;
        for (const PrivilegeSet set : privilegesAlong(chain, who))
            text += "[" + set.text() + "]";
        return text;
    };
    EXPECT_EQ(texts({false, {}}), "[][][][][]");
    EXPECT_EQ(texts({false, {10}}), "[][1,2][1,2][][]"); // the set of c leaves group 10 out
    EXPECT_EQ(texts({false, {11}}), "[][][][1][1]");
    EXPECT_EQ(texts({false, {10, 11}}), "[][1,2][1,2][1][1]");
    EXPECT_EQ(texts({true, {}}), "[1,2,3,4,5][1,2,3,4,5][1,2,3,4,5][1,2,3,4,5][1,2,3,4,5]");
}

TEST(Privileges, SeveralGroupsAddUp) {
    const std::vector<Grant> grants{{10, *PrivilegeSet::parse("1")}, {11, *PrivilegeSet::parse("2")}};
    EXPECT_EQ(privilegesHere(grants, {}, {false, {10, 11}}).text(), "1,2");
    EXPECT_EQ(privilegesHere({{10, PrivilegeSet()}}, PrivilegeSet::all(), {false, {10}}).text(), "");
}

TEST(Privileges, APathShowsNoUnreadableFolderAndNotTheRoot) {
    const PrivilegeSet read = *PrivilegeSet::parse("1");
    const PrivilegeSet none;
    EXPECT_EQ(visibleFrom({read}), 0U);
    EXPECT_EQ(visibleFrom({read, read, read}), 1U);
    EXPECT_EQ(visibleFrom({none, read, read}), 1U);
    EXPECT_EQ(visibleFrom({read, none, read}), 2U);
    EXPECT_EQ(visibleFrom({read, read, none}), 3U);
}

TEST(Times, TextsGoThereAndBack) {
    EXPECT_EQ(isoText(0), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(parseIso("2026-03-01T12:00:00.123Z"), 1772366400123);
    EXPECT_EQ(isoText(1772366400123), "2026-03-01T12:00:00.123Z");
    EXPECT_EQ(parseIso("2026-03-01T12:00:00Z"), 1772366400000);
    EXPECT_EQ(parseIso("2026-03-01T12:00:00.123456789Z"), 1772366400123);
    EXPECT_EQ(httpDate(1772366400123), "Sun, 01 Mar 2026 12:00:00 GMT");
    for (const char* malformed :
         {"", "2026-03-01", "2026-03-01T12:00:00", "2026-02-30T12:00:00Z", "2026-03-01T25:00:00Z",
          "2026-03-01T12:00:00.Z", "2026-03-01T12:00:00+01:00", "2026-03-0aT12:00:00Z"})
        EXPECT_EQ(parseIso(malformed), std::nullopt) << malformed;
}

TEST(Hashes, AreThoseOfThePublishedExamples) {
    EXPECT_EQ(hexText(Sha256::of("abc")), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(hexText(Xxh3::of("")), "99aa06d3014798d86001c324468d497f");
    EXPECT_EQ(parseSha256(hexText(Sha256::of("abc"))), Sha256::of("abc"));
    EXPECT_EQ(parseXxh3("99AA06D3014798D86001C324468D497F"), std::nullopt);
    EXPECT_EQ(parseXxh3("99aa06d3014798d86001c324468d497"), std::nullopt);
}

TEST(JsonText, EscapesWhatJsonNeedsAndNothingElse) {
    std::string text;
    appendJsonString(text, "a\"b\\c\n\x01\xC3\xA9/");
    EXPECT_EQ(text, "\"a\\\"b\\\\c\\u000a\\u0001\xC3\xA9/\"");
}

TEST(JsonInput, NamesTheFieldThatIsMissingOrMistyped) {
    const auto message = [](const std::string& body, const std::function<void(const JsonInput&)>& read) {
        return std::string(errorOf([&] { read(JsonInput(body)); }).what());
    };
    const auto number = [](const JsonInput& input) { (void)input.wholeNumber("size", 0, 100); };
    EXPECT_EQ(message("{}", number), "The field \"size\" is missing.");
    for (const char* wrong : {R"({"size": "1"})", R"({"size": 1.0})", R"({"size": -1})", R"({"size": 101})",
                              R"({"size": null})", R"({"size": 18446744073709551615})", R"({"size": true})"})
        EXPECT_EQ(message(wrong, number), "The field \"size\" must be a whole number from 0 to 100.")
            << wrong;
    EXPECT_EQ(message(R"({"name": 1})", [](const JsonInput& input) { (void)input.text("name"); }),
              "The field \"name\" must be a text.");
    EXPECT_EQ(message(R"({"ids": [1, 0]})", [](const JsonInput& input) { (void)input.idListOrEmpty("ids"); }),
              "The field \"ids\" must be a list of ids.");
    EXPECT_EQ(message("[]", [](const JsonInput&) {}), "The request's body must be a JSON object.");
    for (const char* malformed : {"", "{", "<html></html>", R"({"a": "\ud800"})", "{\"a\": \"\xFF\"}",
                                  R"({"a": 1} x)", R"({"a": 01})"})
        EXPECT_EQ(message(malformed, [](const JsonInput&) {}), "The request's body is not well-formed JSON.")
            << malformed;
}

TEST(JsonInput, BoundsTheDepth) {
    const auto nested = [](int levels) { return std::string(levels, '[') + std::string(levels, ']'); };
    EXPECT_NO_THROW(requireJson(nested(64)));
    EXPECT_STREQ(errorOf([&] { requireJson(nested(65)); }).what(),
                 "The JSON of the request is nested deeper than 64 levels.");
    EXPECT_STREQ(errorOf([&] { requireJson(nested(500'000)); }).what(),
                 "The JSON of the request is nested deeper than 64 levels.");
}

TEST(JsonInput, KeepsTheRawFieldByteForByte) {
    const JsonInput input(R"( { "a" : 1 , "raw" : {"x": "}\"{", "y": [1, {"raw": 2}]} , "b" : "raw" } )",
                          "raw");
    EXPECT_EQ(input.rawObjectOrEmpty(), R"({"x": "}\"{", "y": [1, {"raw": 2}]})");
    EXPECT_EQ(input.wholeNumber("a", 0, 9), 1);
    EXPECT_EQ(input.text("b"), "raw");
    EXPECT_EQ(JsonInput(R"({"raw": null})", "raw").rawObjectOrEmpty(), "{}");
    EXPECT_EQ(JsonInput(R"({"b": 1})", "raw").rawObjectOrEmpty(), "{}");
    EXPECT_EQ(JsonInput(R"({"raw":{"a":1},"raw":{"a":2}})", "raw").rawObjectOrEmpty(), R"({"a":2})");
    EXPECT_STREQ(errorOf([] { (void)JsonInput(R"({"raw": [1]})", "raw").rawObjectOrEmpty(); }).what(),
                 "The field \"raw\" must be an object.");
}

TEST(Router, FindsThePatternAndTellsWhatItDoesNotKnow) {
    Router router;
    const Handler nothing = [](Request&, const PathValues&, const Respond&) {};
    router.add("GET", "/files/{}/versions/{}/content", 0, nothing);
    router.add("HEAD", "/files/{}/versions/{}/content", 0, nothing);
    EXPECT_EQ(router.match("GET", "/api/v1/files/12/versions/latest/content").values,
              (PathValues{"12", "latest"}));
    EXPECT_EQ(errorOf([&] { router.match("PUT", "/api/v1/files/1/versions/1/content"); }).status(), 405);
    for (const char* unknown :
         {"/api/v1/files/1", "/api/v1/files//versions/1/content", "/files/1/versions/1/content", "", "/",
          "/api/v1/files/1/versions/1/content/", "/api/v1x/files/1/versions/1/content"})
        EXPECT_EQ(errorOf([&] { router.match("GET", unknown); }).code(), ErrorCode::NotFound) << unknown;
}

TEST(LoginLimiter, ANameWaitsAfterTenFailuresInAMinute) {
    LoginLimiter limiter;
    const LoginLimiter::Clock::time_point begin{std::chrono::hours(1)};
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(limiter.waitFor("anna", begin + std::chrono::seconds(i)).count(), 0);
        limiter.countFailure("anna", begin + std::chrono::seconds(i));
    }
    EXPECT_EQ(limiter.waitFor("anna", begin + std::chrono::seconds(10)).count(), 50);
    EXPECT_EQ(limiter.waitFor("bert", begin + std::chrono::seconds(10)).count(), 0);
    EXPECT_EQ(limiter.waitFor("anna", begin + std::chrono::seconds(60)).count(), 0);
}

TEST(SystemErrors, AFullDiskIsStorageFull) {
    EXPECT_EQ(systemError("write", ENOSPC).status(), 507);
    EXPECT_EQ(systemError("write", EDQUOT).code(), ErrorCode::StorageFull);
    EXPECT_EQ(systemError("write", EIO).code(), ErrorCode::Internal);
}

} // namespace halvane::server
