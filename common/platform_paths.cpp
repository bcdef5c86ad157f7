#include "common/platform_paths.h"

#include "common/environment.h"
#include "common/file.h"

#include <array>
#include <pwd.h>
#include <unistd.h>

namespace vantor::platform_paths {

namespace {

bool isAbsolute(const std::string& path) {
    return path.starts_with('/');
}

std::string homeInPasswordDatabase() {
    std::array<char, 16384> text; // names, paths and a shell: far more than any entry holds
    passwd entry = {};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, text.data(), text.size(), &found) != 0 || found == nullptr)
        return "/";
    return found->pw_dir;
}

} // namespace

std::string localStoragePath() {
    const std::string data_home = environmentVariable("XDG_DATA_HOME");
    if (isAbsolute(data_home))
        return File::joinPath(data_home, VANTOR_STORAGE_NAME);

    std::string home = environmentVariable("HOME");
    if (!isAbsolute(home))
        home = homeInPasswordDatabase();
    return File::joinPath(home, ".local/share/" VANTOR_STORAGE_NAME);
}

} // namespace vantor::platform_paths
