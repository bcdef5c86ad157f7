#pragma once

#include <string_view>

namespace vantor::client {

/// Keeps the type and the text of an exception that nobody catches, before the process is ended for it: by
/// the terminate handler that stood there before. May be called again.
void watchUncaughtExceptions();
/// Puts that one back, unless somebody has replaced ours.
void ignoreUncaughtExceptions();

/// "" when there is none. For signal handlers.
std::string_view uncaughtException();

} // namespace vantor::client
