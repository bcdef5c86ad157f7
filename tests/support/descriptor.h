#pragma once

#include <unistd.h>
#include <utility>

namespace vantor::test {

/// Owns a file descriptor and closes it.
class Descriptor {
public:
    Descriptor() = default;
    /// Takes `number` over; -1: none.
    explicit Descriptor(int number) : m_number(number) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(m_number, other.m_number);
        return *this;
    }

    int get() const { return m_number; }
    bool isOpen() const { return m_number != -1; }
    /// Closes it now.
    void reset() {
        if (isOpen())
            (void)close(std::exchange(m_number, -1)); // nothing is done about a failed close
    }

private:
    int m_number = -1;
};

} // namespace vantor::test
