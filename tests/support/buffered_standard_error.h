#pragma once

#include <cstdio>

namespace vantor::test {

/// While one lives, what is printed on standard error is written when it is flushed, as to a file.
class BufferedStandardError {
public:
    BufferedStandardError() { (void)setvbuf(stderr, m_buffer, _IOFBF, sizeof(m_buffer)); }
    ~BufferedStandardError() {
        (void)fflush(stderr);
        (void)setvbuf(stderr, nullptr, _IONBF, 0);
    }
    BufferedStandardError(const BufferedStandardError&) = delete;
    BufferedStandardError& operator=(const BufferedStandardError&) = delete;

private:
    char m_buffer[4096] = {};
};

} // namespace vantor::test
