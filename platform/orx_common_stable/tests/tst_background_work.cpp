#include "BackgroundWork.h"

#include <gtest/gtest.h>

#include <thread>

using namespace orx;

namespace {

class Work : public BackgroundWork {
public:
    explicit Work(int which) : number(which) {}
    void finished(const Error&) override {}
    bool isCanceled() const override { return false; }
    int number;
};

int begun() {
    const auto work = std::dynamic_pointer_cast<Work>(BackgroundWork::begin());
    return work ? work->number : 0;
}

TEST(BackgroundWork, BelongsToTheInnermostScopeOfItsThread) {
    EXPECT_EQ(begun(), 0);
    const BackgroundWork::Scope outer([] { return std::make_shared<Work>(1); });
    EXPECT_EQ(begun(), 1);
    {
        const BackgroundWork::Scope inner([] { return std::make_shared<Work>(2); });
        EXPECT_EQ(begun(), 2);
        const BackgroundWork::Scope none{{}};
        EXPECT_EQ(begun(), 0);
    }
    EXPECT_EQ(begun(), 1);
    int elsewhere = -1;
    std::thread([&] { elsewhere = begun(); }).join();
    EXPECT_EQ(elsewhere, 0);
}

} // namespace
