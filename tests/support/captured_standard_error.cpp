#include "tests/support/captured_standard_error.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vantor::test {

CapturedStandardError::CapturedStandardError()
    : m_original(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)),
      m_captured(memfd_create("stderr", MFD_CLOEXEC)) {
    if (m_original == -1 || m_captured == -1 || dup2(m_captured, STDERR_FILENO) == -1) {
        perror("cannot capture standard error");
        abort();
    }
}

CapturedStandardError::~CapturedStandardError() {
    std::cerr.flush();
    (void)fflush(stderr);
    (void)dup2(m_original, STDERR_FILENO); // it was there before
    (void)close(m_original);
    (void)close(m_captured);
}

std::string CapturedStandardError::text() const {
    struct stat status = {};
    (void)fstat(m_captured, &status); // a memory file
    std::string text(static_cast<size_t>(status.st_size), '\0');
    const ssize_t length = pread(m_captured, text.data(), text.size(), 0);
    text.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return text;
}

} // namespace vantor::test
