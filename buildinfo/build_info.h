#pragma once

// The build record: how this executable was built, as text in the Protocol Buffers text format. It is the
// content of the executable's section "bldinfo", where tools read it without running anything (see
// docs/build-record.md).

/// The record, a text that ends with a NUL. Exported by its plain name from the executable's dynamic symbol
/// table. The same pointer at every call; any thread may call it at any time.
extern "C" const char* getBuildInfo();

/// Never called. It refers to the CPU profiler, so that the executable needs, and loads, the profiler's
/// library and can be profiled where it is installed.
int bogus();
