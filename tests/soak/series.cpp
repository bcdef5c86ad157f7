#include "tests/soak/series.h"

#include <algorithm>

namespace vantor::soak {

namespace {

using test::ProcessResources;

std::string describe(const ProcessResources& sample) {
    return std::to_string(sample.descriptors) + " descriptors and " + std::to_string(sample.threads) +
           " threads";
}

} // namespace

bool Series::allows(const ProcessResources& sample) const {
    if (m_samples.size() < kWarmUp)
        return true;
    return std::all_of(m_samples.begin(), m_samples.begin() + kWarmUp, [&sample](const auto& early) {
        return sample.descriptors <= early.descriptors && sample.threads <= early.threads;
    });
}

uint64_t Series::medianMemory(size_t begin, size_t end) const {
    std::vector<uint64_t> kilobytes;
    for (size_t i = begin; i < end; ++i)
        kilobytes.push_back(m_samples[i].private_kilobytes);
    std::sort(kilobytes.begin(), kilobytes.end());
    return kilobytes[kilobytes.size() / 2];
}

std::string Series::complaint() const {
    const size_t count = m_samples.size();
    if (count < kFewest)
        return "only " + std::to_string(count) + " samples were taken";

    for (size_t i = kWarmUp; i < count; ++i) {
        if (!allows(m_samples[i]))
            return "sample " + std::to_string(i + 1) + " has " + describe(m_samples[i]) + ", the first " +
                   describe(m_samples[0]);
    }

    const size_t third = (count - kWarmUp) / 3;
    const uint64_t early = medianMemory(kWarmUp, kWarmUp + third);
    const uint64_t late = medianMemory(count - third, count);
    if (late > early + m_most_growth)
        return "private memory has grown from " + std::to_string(early) + " to " + std::to_string(late) +
               " kilobytes";
    return "";
}

} // namespace vantor::soak
