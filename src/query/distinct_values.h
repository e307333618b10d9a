#pragma once

// Sets that tell whether a value was seen before.

#include <bit>
#include <cmath>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_set>
#include <utility>
#include <vector>

#include "core/ascii.h"
#include "core/hash.h"
#include "query/number_value.h"

namespace quillmere {

// An open-addressed set of integers: no allocation per element.
template <class Bits>
class FlatSet {
public:
    // Whether the value is new.
    bool insert(Bits value) {
        if (value == kFree) return !std::exchange(hasFree_, true);
        if (2 * used_ >= slots_.size()) grow();
        if (!place(value)) return false;
        ++used_;
        return true;
    }
    uint64_t size() const { return used_ + (hasFree_ ? 1 : 0); }

private:
    static constexpr Bits kFree = 0;
    static constexpr size_t kMinSlots = 64;

    bool place(Bits value) {
        const size_t mask = slots_.size() - 1;
        size_t slot = hashOf(value) & mask;
        for (; slots_[slot] != kFree; slot = (slot + 1) & mask) {
            if (slots_[slot] == value) return false;
        }
        slots_[slot] = value;
        return true;
    }
    void grow() {
        std::vector<Bits> old(slots_.empty() ? kMinSlots : 2 * slots_.size(), kFree);
        old.swap(slots_);
        for (const Bits value : old) {
            if (value != kFree) place(value);
        }
    }
    // Each bit of the value reaches the low bits: neighbours and multiples spread alike.
    static size_t hashOf(Bits value) {
        uint64_t hash = value * uint64_t{0x9E3779B97F4A7C15};
        hash = (hash ^ (hash >> 32)) * uint64_t{0x9E3779B97F4A7C15};
        return static_cast<size_t>(hash ^ (hash >> 29));
    }

    std::vector<Bits> slots_;  // a power of two of them, at most half of them used
    uint64_t used_ = 0;
    bool hasFree_ = false;  // the value that marks a free slot
};

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
        return seen_.insert(std::bit_cast<BitsOf<T>>(value));
    }
    uint64_t size() const { return seen_.size() + nans_; }

private:
    FlatSet<BitsOf<T>> seen_;
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
