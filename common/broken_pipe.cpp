#include "common/broken_pipe.h"

#include <csignal>

namespace vantor {

void blockBrokenPipeSignal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr); // fails for a wrong first argument alone
}

} // namespace vantor
