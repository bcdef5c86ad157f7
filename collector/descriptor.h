#pragma once

#include <unistd.h>
#include <utility>

namespace vantor::collector {

/// Owns a file descriptor and closes it.
class Descriptor {
public:
    Descriptor() = default;
    /// Takes `number` over; -1: none.
    explicit Descriptor(int number) : m_number(number) {}
    ~Descriptor() {
        if (isOpen())
            (void)::close(m_number); // what must be on disk was synchronised before
    }
    Descriptor(Descriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(m_number, other.m_number);
        return *this;
    }

    int get() const { return m_number; }
    bool isOpen() const { return m_number != -1; }

private:
    int m_number = -1;
};

} // namespace vantor::collector
