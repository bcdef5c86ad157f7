#include "client/report_directory.h"

#include <array>
#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

namespace vantor::client {

namespace {

bool isAbsolute(const std::string& path) {
    return path.starts_with('/');
}

/// "" as well in a process that runs with more rights than its caller, as in the server.
std::string environmentVariable(const char* name) {
    const char* const value = secure_getenv(name);
    return value != nullptr ? value : "";
}

std::string homeInPasswordDatabase() {
    std::array<char, 16384> text; // names, paths and a shell: far more than any entry holds
    passwd entry = {};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, text.data(), text.size(), &found) != 0 || found == nullptr)
        return "/";
    return found->pw_dir;
}

/// With one separator between them.
std::string join(const std::string& directory, const std::string& name) {
    return directory.empty() || directory.ends_with('/') ? directory + name : directory + "/" + name;
}

} // namespace

std::string storageDirectory(const std::string& data_home) {
    if (isAbsolute(data_home))
        return join(data_home, VANTOR_STORAGE_NAME);
    const std::string from_environment = environmentVariable("XDG_DATA_HOME");
    if (isAbsolute(from_environment))
        return join(from_environment, VANTOR_STORAGE_NAME);

    std::string home = environmentVariable("HOME");
    if (!isAbsolute(home))
        home = homeInPasswordDatabase();
    return join(home, ".local/share/" VANTOR_STORAGE_NAME);
}

std::string reportDirectory(const std::string& storage_directory) {
    return storage_directory + "/crash";
}

std::string runsDirectory(const std::string& storage_directory) {
    return storage_directory + "/runs";
}

} // namespace vantor::client
