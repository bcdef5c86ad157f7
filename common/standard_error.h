#pragma once

#include <iosfwd>

namespace vantor {

/// std::cerr, initialised by the first call. To include <iostream> is to initialise all standard streams,
/// with all that locales are, at the start of the program: half a megabyte of libstdc++ in memory that a
/// server which never says anything through a stream does not need. Any thread may call it.
std::ostream& standardError();

} // namespace vantor
