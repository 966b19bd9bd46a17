#include "ExtendableEnum.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

using namespace orx;
using Names = ExtendableEnum<std::string>;
using Ref = ExtendableEnumRef<std::string>;

TEST(ExtendableEnum, AnEqualRecordIsTheSameValueAtTheSameAddress) {
    Names names;
    const Ref first = names.add("a");
    EXPECT_EQ(&names.add("a").data(), &first.data());
    EXPECT_NE(names.add("b"), first);
    EXPECT_EQ(names.values().size(), 2);
}

TEST(ExtendableEnum, AddressesStayValidWhileItGrows) {
    Names names;
    const Ref first = names.add("first");
    const std::string* const address = &first.data();
    for (int i = 0; i < 10'000; ++i)
        names.add("n" + std::to_string(i % 500));
    EXPECT_EQ(&first.data(), address);
    EXPECT_EQ(*first, "first");
    EXPECT_EQ(names.values().size(), 501);
}

TEST(ExtendableEnum, ValuesCompareByTheirRecords) {
    const std::string one = "same", other = "same", different = "different";
    EXPECT_EQ(Ref(&one), Ref(&other));
    EXPECT_NE(Ref(&one), Ref(&different));
    EXPECT_NE(Ref(&one), Ref());
    EXPECT_NE(Ref(), Ref(&one));
    EXPECT_EQ(Ref(), Ref());
    EXPECT_TRUE(Ref().isNull());
}

TEST(ExtendableEnum, FindGivesTheFirstThatIsAcceptedOrNull) {
    Names names;
    names.add("a1");
    names.add("b1");
    names.add("b2");
    EXPECT_EQ(*names.find([](const std::string& s) { return s[0] == 'b'; }), "b1");
    EXPECT_TRUE(names.find([](const std::string& s) { return s[0] == 'c'; }).isNull());
}

TEST(ExtendableEnum, ManyThreadsAddTheSameValuesOnce) {
    Names names;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&names] {
            for (int i = 0; i < 300; ++i) {
                const Ref ref = names.add(std::to_string(i));
                EXPECT_EQ(*ref, std::to_string(i));
                EXPECT_FALSE(names.find([](const std::string& s) { return s == "0"; }).isNull());
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(names.values().size(), 300);
}
