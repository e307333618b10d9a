#pragma once

// The range of object IDs: 1 to all ones minus 1. The two values outside of it have meanings of
// their own wherever an ID is expected.

#include <cstdint>

namespace quillmere {

inline constexpr uint64_t kNoId = 0;                     // new object; in front of the first
inline constexpr uint64_t kIdAllOnes = ~uint64_t{0};     // behind the last
inline constexpr uint64_t kHighestId = kIdAllOnes - 1;
inline constexpr uint64_t kHighestShortId = 0xFFFFFFFF;  // higher ones have a longer key

constexpr bool isObjectId(uint64_t id) {
    return id != kNoId && id != kIdAllOnes;
}

// IllegalArgumentException.
[[noreturn, gnu::cold]] void throwIllegalId(uint64_t id);

}  // namespace quillmere
