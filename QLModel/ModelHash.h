#pragma once

#include <cstddef>
#include <functional>

namespace ql {

// Mixes the hash of `value` into `seed`, for the memberwise hashes of the model's value types.
template <typename T>
void hashCombine(std::size_t& seed, const T& value) {
    seed ^= std::hash<T>{}(value) + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
}

template <typename... T>
std::size_t hashValues(const T&... values) {
    std::size_t seed = 0;
    (hashCombine(seed, values), ...);
    return seed;
}

}  // namespace ql
