#include "client/server_place.h"

#include <climits>
#include <cstdlib>
#include <dlfcn.h>
#include <memory>
#include <unistd.h>

namespace vantor::client {

namespace {

std::string executable() {
    char path[PATH_MAX];
    const ssize_t size = readlink("/proc/self/exe", path, sizeof(path));
    return size > 0 ? std::string(path, static_cast<size_t>(size)) : "";
}

/// "" when it cannot be known.
std::string fileOfThisLibrary() {
    Dl_info info = {};
    if (dladdr(reinterpret_cast<void*>(&fileOfThisLibrary), &info) == 0 || info.dli_fname == nullptr)
        return "";
    const std::unique_ptr<char, void (*)(void*)> path(realpath(info.dli_fname, nullptr), std::free);
    return path != nullptr ? path.get() : "";
}

/// With the separator at its end; "" of "".
std::string directoryOf(const std::string& path) {
    return path.substr(0, path.rfind('/') + 1);
}

bool isProgram(const std::string& path) {
    return access(path.c_str(), X_OK) == 0;
}

} // namespace

std::string executableName() {
    const std::string path = executable();
    return path.substr(path.rfind('/') + 1);
}

std::string findServer() {
    std::string beside = directoryOf(executable()) + "crash_server";
    if (isProgram(beside))
        return beside;
    std::string installed = directoryOf(fileOfThisLibrary()) + VANTOR_SERVER_FROM_LIBRARY;
    return isProgram(installed) ? installed : VANTOR_INSTALLED_SERVER;
}

} // namespace vantor::client
