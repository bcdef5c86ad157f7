#include "common/standard_error.h"

#include <ostream>

namespace vantor {

/// std::cerr by the name that the linker knows: only <iostream> declares the other.
extern std::ostream g_cerr __asm__("_ZSt4cerr");

std::ostream& standardError() {
    static const std::ios_base::Init initialised; // what <iostream> does at the start
    return g_cerr;
}

} // namespace vantor
