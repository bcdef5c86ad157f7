#pragma once

#include <string>

namespace vantor::client {

/// The directory in which the crash server that this process starts keeps its files; it need not exist. That
/// is the build's VANTOR_STORAGE_NAME in
///   - `data_home`, or else $XDG_DATA_HOME, if it is an absolute path;
///   - else $HOME/.local/share, if that is one;
///   - else .local/share in the home that the password database gives the user, or in the root directory.
///
/// These are the server's own rules, so that both mean the same directory, provided that the server finds
/// `data_home` in its XDG_DATA_HOME.
std::string storageDirectory(const std::string& data_home);

/// Where the reports are.
std::string reportDirectory(const std::string& storage_directory);

/// Where the marks of runs are. See run_marker.h.
std::string runsDirectory(const std::string& storage_directory);

} // namespace vantor::client
