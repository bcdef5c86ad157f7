#pragma once

namespace vantor::test {

// Ways for an application to come to an end. Each stands in a function of its own, whose name a stack trace
// shows.

[[noreturn]] void crashBySegmentationFault();
[[noreturn]] void crashByAbort();
/// Crashes in a second thread, while the calling one goes on in firstThreadGoesOn().
[[noreturn]] void crashInSecondThread();

} // namespace vantor::test
