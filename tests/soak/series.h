#pragma once

#include "tests/support/process_resources.h"

#include <string>
#include <vector>

namespace vantor::soak {

/// What a process held each time when it had nothing to do, and whether that is flat:
/// - It never has more descriptors, or more threads, than it had least while it warmed up.
/// - The median of its private memory over the last third of what follows the warm-up is at most the allowed
///   growth above that over the first third. A median, since a heap wanders.
class Series {
public:
    static constexpr size_t kWarmUp = 3; ///< samples
    static constexpr size_t kFewest = 2 * kWarmUp;

    /// In kilobytes.
    explicit Series(uint64_t most_growth = 1024) : m_most_growth(most_growth) {}

    /// Whether this many descriptors and threads are no growth. Anything is none while the process warms up.
    bool allows(const test::ProcessResources& sample) const;
    void add(const test::ProcessResources& sample) { m_samples.push_back(sample); }

    size_t size() const { return m_samples.size(); }
    const test::ProcessResources& last() const { return m_samples.back(); }
    /// What is not flat; "" if everything is.
    std::string complaint() const;

private:
    uint64_t medianMemory(size_t begin, size_t end) const;

    uint64_t m_most_growth;
    std::vector<test::ProcessResources> m_samples;
};

} // namespace vantor::soak
