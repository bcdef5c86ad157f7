#include "tests/support/hidden_file.h"

#include <cstdio>
#include <cstdlib>
#include <sys/mount.h>

namespace vantor::test {

HiddenFile::HiddenFile(std::string path) : m_path(std::move(path)) {
    if (mount("/dev/null", m_path.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        perror(m_path.c_str());
        abort();
    }
}

HiddenFile::~HiddenFile() {
    (void)umount2(m_path.c_str(), MNT_DETACH); // it goes with the namespace at the latest
}

} // namespace vantor::test
