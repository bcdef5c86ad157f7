#include "tests/support/covered_file.h"

#include <cstdio>
#include <cstdlib>
#include <sys/mount.h>

namespace vantor::test {

CoveredFile::CoveredFile(std::string path, const std::string& cover) : m_path(std::move(path)) {
    if (mount(cover.c_str(), m_path.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        perror(m_path.c_str());
        abort();
    }
}

CoveredFile::~CoveredFile() {
    (void)umount2(m_path.c_str(), MNT_DETACH); // it goes with the namespace at the latest
}

} // namespace vantor::test
