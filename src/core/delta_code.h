#pragma once

// Code bytes of delta-coded number lists. Each number is a step from the one before it, the first
// from 0. Do not change: the codes are in stored records.
//
//     0            the same number again
//     1 to 124     up by the code
//     125, byte c  up by 125 + c
//     126, varint  up by the varint
//     127, varint  the varint itself
//     128          illegal
//     129, varint  down by the varint
//     130, byte c  down by 126 + c
//     131 to 255   down by 256 - code

#include <cstdint>

namespace quillmere::delta {

inline constexpr uint8_t kUpMedium = 125;
inline constexpr uint8_t kUpLarge = 126;
inline constexpr uint8_t kAbsolute = 127;
inline constexpr uint8_t kIllegal = 128;
inline constexpr uint8_t kDownLarge = 129;
inline constexpr uint8_t kDownMedium = 130;

inline constexpr uint64_t kUpMediumBase = 125;
inline constexpr uint64_t kDownMediumBase = 126;
inline constexpr uint64_t kMediumRange = 256;

}  // namespace quillmere::delta
