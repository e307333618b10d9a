#pragma once

// Sums of 64-bit integers that can not overflow, and what is derived from them.

#include <bit>
#include <cmath>
#include <cstdint>

namespace quillmere {

__extension__ using Int128 = __int128;
__extension__ using UInt128 = unsigned __int128;

// Rounded down; the remainder is never negative.
struct FloorDivision {
    Int128 quotient;
    uint64_t remainder;
};

// REQUIRES: count > 0.
inline FloorDivision divideFloor(Int128 sum, uint64_t count) {
    const auto divisor = static_cast<Int128>(count);
    Int128 quotient = sum / divisor;
    Int128 remainder = sum % divisor;
    if (remainder < 0) {
        --quotient;
        remainder += divisor;
    }
    return {quotient, static_cast<uint64_t>(remainder)};
}

// The nearest integer, away from zero at a tie. REQUIRES: count > 0.
inline Int128 divideRounded(Int128 sum, uint64_t count) {
    const auto [quotient, remainder] = divideFloor(sum, count);
    const UInt128 twice = UInt128{remainder} * 2;
    const bool up = quotient < 0 ? twice > count : twice >= count;
    return up ? quotient + 1 : quotient;
}

// Through the 64 most significant bits of the magnitude.
inline double toDouble(Int128 value) {
    const UInt128 magnitude = value < 0 ? -static_cast<UInt128>(value) : static_cast<UInt128>(value);
    const int shift = 64 - std::countl_zero(static_cast<uint64_t>(magnitude >> 64));
    const double result = std::ldexp(static_cast<double>(static_cast<uint64_t>(magnitude >> shift)),
                                     shift);
    return value < 0 ? -result : result;
}

}  // namespace quillmere
