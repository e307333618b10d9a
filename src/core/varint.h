#pragma once

// Unsigned 64-bit numbers in 1 to 9 bytes, most significant byte first. The number of leading ones
// of the first byte is the number of bytes behind it, so byte order is numeric order:
//
//     0xxxxxxx                      7 bits
//     10xxxxxx  1 byte  behind     14 bits
//     110xxxxx  2 bytes behind     21 bits
//       ...
//     11111110  7 bytes behind     56 bits
//     11111111  8 bytes behind     64 bits
//
// Writers use the shortest form; readers accept longer ones.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "core/endian.h"

namespace quillmere {

inline constexpr size_t kMaxVarintSize = 9;

constexpr size_t varintSize(uint64_t value) {
    const size_t bits = std::bit_width(value | 1);
    return bits > 56 ? kMaxVarintSize : (bits + 6) / 7;
}

// The whole size that the first byte announces.
constexpr size_t varintSizeAnnounced(uint8_t firstByte) {
    return static_cast<size_t>(std::countl_one(firstByte)) + 1;
}

// Writes varintSize(value) bytes and returns that size.
inline size_t encodeVarint(uint8_t* to, uint64_t value) {
    const size_t size = varintSize(value);
    if (size == kMaxVarintSize) {
        to[0] = 0xFF;
        storeBig(to + 1, value);
        return size;
    }
    const uint64_t lengthBits = (0xFF00u >> (size - 1)) & 0xFFu;
    uint8_t bytes[8];
    storeBig(bytes, value << (64 - 8 * size) | lengthBits << 56);
    std::memcpy(to, bytes, size);
    return size;
}

// `size` bytes must be there, as the first byte announces.
inline uint64_t decodeVarint(const uint8_t* from, size_t size) {
    if (size == kMaxVarintSize) return loadBig<uint64_t>(from + 1);
    uint8_t bytes[8] = {};
    std::memcpy(bytes, from, size);
    const uint64_t valueMask = ~uint64_t{0} >> size;
    return (loadBig<uint64_t>(bytes) & valueMask) >> (64 - 8 * size);
}

}  // namespace quillmere
