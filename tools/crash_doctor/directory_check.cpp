#include "common/file.h"
#include "tools/crash_doctor/surroundings.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace vantor::tools {

namespace {

const char* const kSubject = "crash directory";

constexpr uint64_t kMegabyte = 1'000'000;
constexpr size_t kTestBytes = 1'000'000;   // a report of some threads
constexpr size_t kSmallestReport = 32'768; // the test report has some 25 KB
constexpr uint64_t kLowBytes = 100 * kMegabyte;

std::string adviceFor(int error) {
    switch (error) {
    case ENOSPC:
    case EDQUOT:
        return "Make room there, or name another directory (--data-home here, data_home in the application).";
    case EROFS:
        return "Name a directory that can be written to (--data-home here, data_home in the application).";
    default:
        return "Give this user the right to write there, or name another directory (--data-home here, "
               "data_home in the application).";
    }
}

Finding refusal(Level level, const std::string& what, int error) {
    return {level, kSubject, what + ": " + errorText(error) + ". " + adviceFor(error)};
}

struct Written {
    size_t bytes = 0;
    int error = 0; ///< why no more; 0: that was all
};

Written tryToWrite(const std::string& path) {
    Written written;
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (file == -1)
        return {0, errno};
    const std::string text(kTestBytes, '\0');
    while (written.bytes < text.size() && written.error == 0) {
        const ssize_t size = write(file, text.data() + written.bytes, text.size() - written.bytes);
        if (size > 0)
            written.bytes += static_cast<size_t>(size);
        else
            written.error = errno;
    }
    (void)close(file); // it was for a trial
    (void)unlink(path.c_str());
    return written;
}

Finding checkOwner(const std::string& directory) {
    struct stat status = {};
    (void)stat(directory.c_str(), &status); // zeros: nobody could name it any more
    if (status.st_uid != geteuid())
        return {Level::Warn, kSubject,
                "it belongs to user " + std::to_string(status.st_uid) + ", not to this one (" +
                    std::to_string(geteuid()) + "). Run this as the user whom the application runs as."};
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return {Level::Warn, kSubject,
                "others may write to it, and so have any file sent: chmod 700 " + directory};
    return {Level::Ok, kSubject, "nobody else may write to it"};
}

} // namespace

Findings checkDirectory(const std::string& directory) {
    errno = 0;
    if (!File::recursivelyCreateDir(directory, 0700))
        return {refusal(Level::Fail, directory + " does not exist and cannot be made", errno)};
    const Written written = tryToWrite(directory + "/.crash_doctor." + std::to_string(getpid()));
    if (written.error != 0)
        return {refusal(written.bytes < kSmallestReport ? Level::Fail : Level::Warn,
                        directory + " cannot take a file of 1 MB", written.error)};

    struct statvfs disk = {};
    (void)statvfs(directory.c_str(), &disk); // zeros: no room
    const uint64_t free_bytes = uint64_t(disk.f_bavail) * disk.f_frsize;
    const std::string room = directory + ", " + std::to_string(free_bytes / kMegabyte) + " MB free";
    if (free_bytes < kLowBytes)
        return {{Level::Warn, kSubject, room + ". One report of a large application may fill it: make room."},
                checkOwner(directory)};
    return {{Level::Ok, kSubject, room}, checkOwner(directory)};
}

} // namespace vantor::tools
