#include "client/published_descriptor.h"

#include <atomic>
#include <unistd.h>

namespace vantor::client {

using crash::CustomDataDescriptor;

namespace {

// The kernel's pids end below 2^22; the bits above count freezes.
constexpr uint32_t kOneFreeze = 1U << 22;
constexpr uint32_t kPidMask = kOneFreeze - 1;

bool isOurs(uint32_t freezes) {
    return freezes != 0 && (freezes & kPidMask) == static_cast<uint32_t>(getpid());
}

uint32_t loadFreezes(const CustomDataDescriptor* descriptor) {
    return std::atomic_ref(const_cast<CustomDataDescriptor*>(descriptor)->reserved).load();
}

uint64_t firstHalf(const CustomDataDescriptor& descriptor) {
    return descriptor.count | static_cast<uint64_t>(descriptor.reserved) << 32;
}

/// cmpxchg16b: a crash handler, and a server that reads between two instructions, find the old descriptor or
/// the new one. Written out, since GCC makes a library call of the language's own 16-byte atomics.
bool compareExchange(CustomDataDescriptor* descriptor, const CustomDataDescriptor& expected,
                     const CustomDataDescriptor& desired) {
    uint64_t first = firstHalf(expected);
    uint64_t second = expected.entries;
    bool is_exchanged = false;
    asm volatile("lock cmpxchg16b %[descriptor]"
                 : "=@ccz"(is_exchanged), [descriptor] "+m"(*descriptor), "+a"(first), "+d"(second)
                 : "b"(firstHalf(desired)), "c"(desired.entries)
                 : "memory");
    return is_exchanged;
}

} // namespace

void freeze(CustomDataDescriptor* descriptor) {
    const std::atomic_ref freezes(descriptor->reserved);
    const uint32_t first = kOneFreeze | static_cast<uint32_t>(getpid());
    uint32_t seen = freezes.load();
    while (!freezes.compare_exchange_weak(seen, isOurs(seen) ? seen + kOneFreeze : first))
        continue;
}

void thaw(CustomDataDescriptor* descriptor) {
    const std::atomic_ref freezes(descriptor->reserved);
    uint32_t seen = freezes.load();
    while (isOurs(seen) &&
           !freezes.compare_exchange_weak(seen, seen - kOneFreeze > kPidMask ? seen - kOneFreeze : 0))
        continue;
}

bool isFrozen(const CustomDataDescriptor* descriptor) {
    return isOurs(loadFreezes(descriptor));
}

bool publish(CustomDataDescriptor* descriptor, uint32_t count, const crash::CustomDataEntry* entries) {
    const uint32_t freezes = loadFreezes(descriptor);
    if (isOurs(freezes))
        return false;

    // Setters exclude each other, so that it can fail for a freeze alone.
    const CustomDataDescriptor expected = {descriptor->count, freezes, descriptor->entries};
    const CustomDataDescriptor desired = {count, 0, reinterpret_cast<uint64_t>(entries)};
    return compareExchange(descriptor, expected, desired);
}

} // namespace vantor::client
