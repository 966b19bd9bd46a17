#pragma once

#include <gtest/gtest.h>

#include <sys/resource.h>

namespace orx::testing {

//! The limit of open files of this process, for the life of the object.
class FewDescriptors {
public:
    explicit FewDescriptors(rlim_t count) {
        EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &m_before), 0);
        const rlimit few{count, m_before.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    }
    ~FewDescriptors() { EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &m_before), 0); }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;

private:
    rlimit m_before{};
};

} // namespace orx::testing
