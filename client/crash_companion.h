#pragma once

namespace vantor::client {

/// The life of the companion: a process that is cloned into the memory of one that makes a report of itself,
/// and holds for as long as that takes. The reporting process cannot look after itself, since the server
/// stops it in order to read it.
///
/// It watches the server at work. A server for which nothing moves until the deadline is killed, and the
/// process goes on. If then there is no whole report of this moment, the companion has one written, by a
/// child of its own that can be killed as well.
///
/// `path` is a CrashPath.
[[noreturn]] void runCompanion(void* path);

} // namespace vantor::client
