#pragma once

// RLE0: a compression of zero bytes alone, for data that is full of them. Other bytes stand for
// themselves; a zero byte opens a sequence that the byte behind it selects:
//
//     00 c          c below 224       one zero, then the byte c
//     00 224                          illegal
//     00 225..253                     1 to 29 zeros
//     00 254 n                        30 + n zeros, so 30 to 285
//     00 255 hi lo                    286 to 65535 zeros
//
// This is in files: do not change it.

#include <cstddef>
#include <cstdint>

namespace quillmere {

// The largest factor by which decoding enlarges: four bytes for 65535 zeros. It bounds a decoded
// size that a file claims.
inline constexpr uint64_t kRle0MaxExpansion = 65535 / 4 + 1;

// Gives the size written, or 0 if it does not fit into `capacity` bytes.
size_t rle0Encode(const uint8_t* source, size_t size, uint8_t* destination, size_t capacity);

// Decodes until the source is used up or `capacity` bytes are written. The destination needs one
// byte of slack: it must hold capacity + 1 bytes. Gives the size written, which is capacity + 1 for
// a source that needs the slack. Throws ParsingException.
size_t rle0Decode(const uint8_t* source, size_t size, uint8_t* destination, size_t capacity);

}  // namespace quillmere
