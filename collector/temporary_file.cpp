#include "collector/temporary_file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace vantor::collector {

std::unique_ptr<TemporaryFile> TemporaryFile::create(const std::string& directory) {
    std::string path = directory + "/XXXXXX";
    const int descriptor = mkostemp(path.data(), O_CLOEXEC);
    if (descriptor == -1)
        return nullptr;

    return std::unique_ptr<TemporaryFile>(new TemporaryFile(std::move(path), descriptor));
}

TemporaryFile::TemporaryFile(std::string path, int descriptor)
    : m_path(std::move(path)),
      m_descriptor(descriptor) {}

TemporaryFile::~TemporaryFile() {
    (void)close(m_descriptor); // what had to last was synced
    if (!m_path.empty())
        (void)unlink(m_path.c_str()); // what stays all the same, the next start removes
}

bool TemporaryFile::write(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t piece = ::write(m_descriptor, bytes.data(), bytes.size());
        if (piece == -1 && errno == EINTR)
            continue;
        if (piece == -1)
            return false;
        bytes.remove_prefix(static_cast<size_t>(piece));
    }
    return true;
}

bool TemporaryFile::sync() {
    return fsync(m_descriptor) == 0;
}

bool TemporaryFile::moveTo(const std::string& path) {
    if (rename(m_path.c_str(), path.c_str()) != 0)
        return false;

    m_path.clear();
    return true;
}

} // namespace vantor::collector
