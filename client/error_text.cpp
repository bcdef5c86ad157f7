#include "client/error_text.h"

#include <cerrno>
#include <cstring>

namespace vantor::client {

std::string errorText(int error) {
    const char* const text = strerrordesc_np(error);
    return text != nullptr ? text : "error " + std::to_string(error);
}

std::string adviceForWriting(int error) {
    switch (error) {
    case ENOSPC:
    case EDQUOT:
        return "Make room on that disk.";
    case EROFS:
        return "Name a directory on a disk that can be written.";
    case ENOTDIR:
    case EEXIST:
    case ELOOP:
        return "Something else stands in its place: move that away.";
    case EMFILE:
    case ENFILE:
        return "Allow this process more descriptors (ulimit -n).";
    default:
        return "Give this user the right to read and write there, or name another directory.";
    }
}

} // namespace vantor::client
