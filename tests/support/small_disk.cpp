#include "tests/support/small_disk.h"

#include "tests/support/temporary_directory.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sys/mount.h>

namespace vantor::test {

SmallDisk::SmallDisk(std::string directory, const std::string& limits) : m_directory(std::move(directory)) {
    std::filesystem::create_directories(m_directory);
    if (mount("tmpfs", m_directory.c_str(), "tmpfs", 0, limits.c_str()) != 0) {
        perror(m_directory.c_str());
        abort();
    }
}

SmallDisk::~SmallDisk() {
    (void)umount2(m_directory.c_str(), MNT_DETACH); // it goes with the namespace at the latest
}

void SmallDisk::fillBut(uint64_t bytes) const {
    constexpr uint64_t kPage = 4096;
    const uint64_t pages = std::filesystem::space(m_directory).free / kPage - bytes / kPage;
    writeFile(m_directory + "/filler", std::string(pages * kPage, 'f'));
}

} // namespace vantor::test
