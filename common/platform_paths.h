#pragma once

#include <string>

namespace vantor::platform_paths {

/// The directory in which the system keeps its local data, without a separator at its end. It need not exist.
///
/// NAME below is the build's VANTOR_STORAGE_NAME:
///   - `$XDG_DATA_HOME/NAME`, when that variable holds an absolute path;
///   - else `$HOME/.local/share/NAME`, when that variable holds an absolute path;
///   - else `.local/share/NAME` in the home directory that the password database gives the user;
///   - else, for a user whom the database does not know, the same below the root directory.
std::string localStoragePath();

} // namespace vantor::platform_paths
