#pragma once

namespace vantor::client {

/// Writes into the marker of a run that the run has crashed; makes the file if it is not there. See
/// run_marker.h. `guid` has the 36 characters of the report's name; null: it is not known, or there is none.
/// May be called again with the name. Not to be called for a forked child's crash: the run is its parent's.
/// False when it could not be written, as when something else stands there.
///
/// It takes no new room on a disk, so that a full one does not matter. No C library: any process may call
/// that has this memory.
bool markCrashed(const char* path, const char* guid);

} // namespace vantor::client
