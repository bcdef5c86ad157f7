#pragma once

#include <string_view>

namespace vantor::client {

/// Looks up where the C library keeps what it prints before it aborts: failed assertions, and what it finds
/// wrong with the heap and the stack. Before the first use.
void findAbortMessage();

/// That text, without the line feed at its end; "" when there is none. For signal handlers.
std::string_view abortMessage();

} // namespace vantor::client
