#pragma once

namespace vantor {

/// How many descriptors below the limit are kept free for others: a dump in progress (its file, a few of
/// /proc, the pipe of its acknowledgement), the uploader's connections, and libraries that are loaded late.
inline constexpr int kDescriptorReserve = 64;

/// True when `descriptor`, one that was just opened, stands among the last kDescriptorReserve below the soft
/// limit (or the last quarter of a small limit). Descriptors are given out lowest first: so many are in use.
bool isFromDescriptorReserve(int descriptor);

/// Raises the process's soft limit on descriptors to the hard one. False when there is nothing to raise.
bool raiseDescriptorLimit();

/// While one lives, File::open on this thread fails rather than take from the reserve. For work that opens
/// many files and can leave the rest for another time. The limit is asked for once, not at each open; when
/// somebody else changes it meanwhile, the reserve stays where it was.
class ScopedDescriptorReserve {
public:
    ScopedDescriptorReserve();
    ~ScopedDescriptorReserve();
    ScopedDescriptorReserve(const ScopedDescriptorReserve&) = delete;
    ScopedDescriptorReserve& operator=(const ScopedDescriptorReserve&) = delete;

    /// Whether one lives on the calling thread.
    static bool isHeld();
};

} // namespace vantor
