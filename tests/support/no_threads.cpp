#include "tests/support/no_threads.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>

namespace vantor::test {

NoThreadsToBeHad::NoThreadsToBeHad() {
    pthread_attr_t greedy;
    if (pthread_getattr_default_np(&m_original) != 0 || pthread_attr_init(&greedy) != 0 ||
        pthread_attr_setstacksize(&greedy, size_t(1) << 47) != 0 ||
        pthread_setattr_default_np(&greedy) != 0) {
        fprintf(stderr, "cannot change what threads are given\n");
        abort();
    }
    (void)pthread_attr_destroy(&greedy); // holds nothing
}

NoThreadsToBeHad::~NoThreadsToBeHad() {
    (void)pthread_setattr_default_np(&m_original); // it was valid before
    (void)pthread_attr_destroy(&m_original);
}

} // namespace vantor::test
