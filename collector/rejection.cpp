#include "collector/rejection.h"

#include <cerrno>
#include <system_error>

namespace vantor::collector {

Rejection bad(const std::string& reason) {
    return {Rejection::Kind::Bad, reason};
}

Rejection tooLarge(const std::string& what, uint64_t most_bytes) {
    return {Rejection::Kind::TooLarge, what + " is larger than " + std::to_string(most_bytes) + " bytes."};
}

Rejection noStorage(const std::string& what) {
    return {Rejection::Kind::NoStorage, what + ": " + std::system_category().message(errno) + "."};
}

} // namespace vantor::collector
