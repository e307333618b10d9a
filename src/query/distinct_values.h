#pragma once

// Sets that tell whether a value was seen before.

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_set>

#include "core/ascii.h"
#include "core/hash.h"

namespace quillmere {

// Floats by value: zeros of either sign are one, each NaN differs from all others.
template <class T>
class DistinctScalars {
public:
    // Whether the value is new.
    bool add(T value) {
        if constexpr (std::is_floating_point_v<T>) {
            if (std::isnan(value)) {
                ++nans_;
                return true;
            }
            if (value == 0) value = 0;
        }
        Bits bits;
        std::memcpy(&bits, &value, sizeof bits);
        return seen_.insert(bits).second;
    }
    uint64_t size() const { return seen_.size() + nans_; }

private:
    using Bits = std::conditional_t<
        sizeof(T) == 1, uint8_t,
        std::conditional_t<sizeof(T) == 2, uint16_t,
                           std::conditional_t<sizeof(T) == 4, uint32_t, uint64_t>>>;

    std::unordered_set<Bits, FnvHash<Bits>> seen_;
    uint64_t nans_ = 0;
};

class DistinctStrings {
public:
    explicit DistinctStrings(bool caseSensitive) : caseSensitive_(caseSensitive) {}

    // Whether the text is new. Allocates for a new one only.
    bool add(std::string_view text) {
        if (!caseSensitive_) {
            folded_.assign(text);
            for (char& c : folded_) c = foldAscii(c);
            text = folded_;
        }
        return seen_.find(text) == seen_.end() && seen_.emplace(text).second;
    }
    uint64_t size() const { return seen_.size(); }

private:
    const bool caseSensitive_;
    std::string folded_;
    std::unordered_set<std::string, FnvHash<std::string>, std::equal_to<>> seen_;
};

}  // namespace quillmere
