#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <vector>

/// Of at least one value.
inline double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

/// The median of one member of all `items`.
template <typename Item>
double median(const std::vector<Item>& items, double Item::*member) {
    std::vector<double> values;
    std::transform(items.begin(), items.end(), std::back_inserter(values),
                   [member](const Item& item) { return item.*member; });
    return median(std::move(values));
}
