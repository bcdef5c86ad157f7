#pragma once

#include "collector/rejection.h"

#include <cstdint>
#include <optional>

namespace vantor::collector {

/// The most streams that a minidump may have: what Breakpad's reader takes.
inline constexpr uint32_t kMostMinidumpStreams = 128;

/// Whether an open file is a whole minidump: it begins as one, and its directory and every stream that the
/// directory names lie within the file. What the streams hold is not looked at. Returns what is wrong, and
/// nothing when all is well; a file that cannot be read is no fault of its sender (NoStorage).
///
/// The descriptor must allow reading; its position is neither used nor moved. Any thread may call.
std::optional<Rejection> checkMinidump(int descriptor);

} // namespace vantor::collector
