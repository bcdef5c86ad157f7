#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace vantor::test {

/// While one lives, nothing more can be opened. The hard limit stays.
class NoDescriptorsToBeHad {
public:
    NoDescriptorsToBeHad() {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &m_original), 0);
        const rlimit none = {0, m_original.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    }
    ~NoDescriptorsToBeHad() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &m_original), 0); }
    NoDescriptorsToBeHad(const NoDescriptorsToBeHad&) = delete;
    NoDescriptorsToBeHad& operator=(const NoDescriptorsToBeHad&) = delete;

private:
    rlimit m_original = {};
};

} // namespace vantor::test
