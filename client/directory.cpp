#include "client/directory.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace vantor::client {

Directory::Directory(const std::string& path)
    : m_stream(opendir(path.c_str())),
      m_error(m_stream == nullptr ? errno : 0) {}

std::vector<std::string> Directory::names() {
    std::vector<std::string> names;
    while (const dirent* entry = readdir(m_stream.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    return names;
}

bool Directory::look(const std::string& name, struct stat* status) const {
    return fstatat(descriptor(), name.c_str(), status, AT_SYMLINK_NOFOLLOW) == 0;
}

bool Directory::remove(const std::string& name) const {
    return unlinkat(descriptor(), name.c_str(), 0) == 0;
}

bool makeDirectories(const std::string& path) {
    constexpr mode_t kMode = 0700; // reports are nobody else's, whatever the process's mask
    for (size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1))
        (void)mkdir(path.substr(0, end).c_str(), kMode); // most of them exist
    if (mkdir(path.c_str(), kMode) == 0)
        return true;

    const int error = errno;
    struct stat status = {};
    const bool exists = stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    errno = error;
    return exists;
}

} // namespace vantor::client
