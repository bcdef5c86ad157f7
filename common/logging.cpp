#include "common/logging.h"

#include "common/broken_pipe.h"

#include <cstdio>

namespace vantor {

namespace {

struct StandardErrorLog {
    StandardErrorLog() = default;
    StandardErrorLog(const StandardErrorLog&) = delete;
    StandardErrorLog& operator=(const StandardErrorLog&) = delete;
    ~StandardErrorLog() { (void)fflush(stderr); } // nobody is left to tell
};

class StandardErrorLogging final : public LoggingInit {
public:
    // Before main: the crash server has something to say before it starts its log, and just when its parent
    // has died.
    StandardErrorLogging() { blockBrokenPipeSignal(); }

    std::shared_ptr<void> start() override { return std::make_shared<StandardErrorLog>(); }
};

StandardErrorLogging g_standard_error_logging;

} // namespace

LoggingInit& g_logging_init = g_standard_error_logging;

} // namespace vantor
