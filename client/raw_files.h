#pragma once

#include "client/raw_system_calls.h"

#include <cstddef>
#include <cstdint>
#include <fcntl.h>

// Texts and files for code that must not use the C library.

namespace vantor::client {

/// Texts one after the other, in memory of the caller's. What does not fit is cut; there is always a NUL.
class RawText {
public:
    [[gnu::always_inline]] RawText(char* memory, size_t size) : m_memory(memory), m_room(size - 1) {
        m_memory[0] = '\0';
    }

    [[gnu::always_inline]] RawText& add(const char* text, size_t most = SIZE_MAX) {
        for (size_t i = 0; i < most && text[i] != '\0' && m_size < m_room; ++i)
            m_memory[m_size++] = text[i];
        m_memory[m_size] = '\0';
        return *this;
    }

    [[gnu::always_inline]] RawText& addNumber(uint64_t number) {
        char digits[20];
        size_t first = sizeof(digits);
        do
            digits[--first] = static_cast<char>('0' + number % 10);
        while ((number /= 10) != 0);
        return add(digits + first, sizeof(digits) - first);
    }

    [[gnu::always_inline]] size_t size() const { return m_size; }

private:
    char* m_memory;
    const size_t m_room;
    size_t m_size = 0;
};

/// Closes itself.
class RawDescriptor {
public:
    [[gnu::always_inline]] explicit RawDescriptor(long descriptor)
        : m_descriptor(static_cast<int>(descriptor)) {}
    [[gnu::always_inline]] ~RawDescriptor() {
        if (m_descriptor >= 0)
            (void)rawSystemCall(SYS_close, m_descriptor);
    }
    RawDescriptor(const RawDescriptor&) = delete;
    RawDescriptor& operator=(const RawDescriptor&) = delete;

    [[gnu::always_inline]] int get() const { return m_descriptor; } ///< negative: an error
    [[gnu::always_inline]] bool isOpen() const { return m_descriptor >= 0; }

private:
    const int m_descriptor;
};

} // namespace vantor::client
