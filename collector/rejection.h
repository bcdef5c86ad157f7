#pragma once

#include <cstdint>
#include <string>

namespace vantor::collector {

/// Why something that arrived is not kept.
struct Rejection {
    /// In HTTP's words 400, 413 and 503: the sender's fault, the sender's size, and ours, so that it pays to
    /// try again later.
    enum class Kind { Bad, TooLarge, NoStorage };

    Kind kind;
    std::string reason; ///< one line for the sender, without a line feed

    friend bool operator==(const Rejection&, const Rejection&) = default;
};

/// The sender's fault.
Rejection bad(const std::string& reason);

/// Something with more bytes than are allowed: "The form".
Rejection tooLarge(const std::string& what, uint64_t most_bytes);

/// The fault of a disk that is full or fails, for a system call that has just failed: what cannot be done
/// ("The dump cannot be stored"), and why, by errno.
Rejection noStorage(const std::string& what);

} // namespace vantor::collector
