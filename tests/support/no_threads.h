#pragma once

#include <pthread.h>

namespace vantor::test {

/// While one lives the system has no thread to give to this process: each would need a stack as large as the
/// whole address space.
class NoThreadsToBeHad {
public:
    NoThreadsToBeHad();
    ~NoThreadsToBeHad();
    NoThreadsToBeHad(const NoThreadsToBeHad&) = delete;
    NoThreadsToBeHad& operator=(const NoThreadsToBeHad&) = delete;

private:
    pthread_attr_t m_original = {};
};

} // namespace vantor::test
