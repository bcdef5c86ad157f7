#include "common/environment.h"

#include <cstdlib>

namespace vantor {

std::string environmentVariable(const char* name) {
    const char* value = secure_getenv(name);
    return value != nullptr ? value : "";
}

} // namespace vantor
