// File's operations on names and directories.

#include "common/file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vantor {

namespace {

/// Where the last component begins.
size_t nameBegin(const std::string& path) {
    // rfind would look at one character after the other.
    const void* const separator = memrchr(path.data(), '/', path.size());
    return separator == nullptr ? 0
                                : static_cast<size_t>(static_cast<const char*>(separator) - path.data()) + 1;
}

/// Where the extension's dot stands; npos when there is no extension.
size_t extensionDot(const std::string& path) {
    const size_t name = nameBegin(path);
    const size_t dot = path.rfind('.');
    return dot == std::string::npos || dot <= name ? std::string::npos : dot;
}

bool isDirectory(DIR* parent, const dirent& entry) {
    if (entry.d_type != DT_UNKNOWN && entry.d_type != DT_LNK)
        return entry.d_type == DT_DIR;

    struct stat status = {};
    return fstatat(dirfd(parent), entry.d_name, &status, 0) == 0 && S_ISDIR(status.st_mode);
}

bool isDirectory(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

void sort(std::vector<std::string>* names) {
    if (names != nullptr)
        std::sort(names->begin(), names->end());
}

} // namespace

std::string File::stripExtension(const std::string& path) {
    return path.substr(0, extensionDot(path));
}

std::string File::extension(const std::string& path) {
    const size_t dot = extensionDot(path);
    return dot == std::string::npos ? "" : path.substr(dot + 1);
}

std::string File::basename(const std::string& path) {
    return path.substr(nameBegin(path));
}

std::string File::joinPath(const std::string& a, const std::string& b) {
    if (a.empty() || b.empty())
        return a + b;

    const bool ends_with_separator = a.ends_with('/');
    const bool starts_with_separator = b.starts_with('/');
    if (ends_with_separator && starts_with_separator)
        return a + b.substr(1);
    return ends_with_separator || starts_with_separator ? a + b : a + "/" + b;
}

bool File::listFiles(const std::string& dir, bool sorted, std::vector<std::string>* files,
                     std::vector<std::string>* directories) {
    files->clear();
    if (directories != nullptr)
        directories->clear();
    DIR* stream = opendir(dir.c_str());
    if (stream == nullptr)
        return false;

    while (const dirent* entry = readdir(stream)) {
        std::string name = entry->d_name;
        if (!isDirectory(stream, *entry))
            files->push_back(std::move(name));
        else if (directories != nullptr && name != "." && name != "..")
            directories->push_back(std::move(name));
    }
    (void)closedir(stream); // it was only read

    if (sorted) {
        sort(files);
        sort(directories);
    }
    return true;
}

bool File::remove(const std::string& path) {
    return unlink(path.c_str()) == 0;
}

bool File::recursivelyCreateDir(const std::string& path, int mode) {
    for (size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1))
        (void)mkdir(path.substr(0, end).c_str(), static_cast<mode_t>(mode)); // most of them exist
    return mkdir(path.c_str(), static_cast<mode_t>(mode)) == 0 || isDirectory(path);
}

} // namespace vantor
