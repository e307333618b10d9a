#include "kv/rle0.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <string>

#include "core/endian.h"
#include "core/error.h"

namespace quillmere {

namespace {

constexpr uint8_t kIllegal = 224;      // literals behind one zero are below
constexpr size_t kShortMax = 29;       // zeros that the second byte alone tells
constexpr uint8_t kMedium = 254;
constexpr size_t kMediumMin = 30;
constexpr size_t kMediumMax = 285;
constexpr uint8_t kLong = 255;
constexpr size_t kLongMin = 286;
constexpr size_t kLongMax = 65535;

// The number of bytes in front of the first zero byte among the eight of a little-endian word; 8 if
// there is none.
size_t bytesBeforeZero(uint64_t word) {
    constexpr uint64_t kOnes = 0x0101010101010101;
    const uint64_t marks = (word - kOnes) & ~word & (kOnes << 7);
    return static_cast<size_t>(std::countr_zero(marks)) / 8;
}

struct Input {
    const uint8_t* at;
    const uint8_t* end;
    size_t left() const { return static_cast<size_t>(end - at); }
};

struct Output {
    uint8_t* at;
    uint8_t* end;
    size_t left() const { return static_cast<size_t>(end - at); }
};

// Copies what stands in front of the next zero byte, of eight bytes; false if they have none. There
// must be eight bytes on both sides.
bool copyToZero(Input& in, Output& out) {
    const uint64_t word = loadLittle<uint64_t>(in.at);
    storeLittle(out.at, word);
    const size_t literals = bytesBeforeZero(word);
    in.at += literals;
    out.at += literals;
    return literals < 8;
}

// Copies what stands in front of the next zero byte, as far as the output takes it.
void copyLiterals(Input& in, Output& out) {
    while (in.left() >= 8 && out.left() >= 8) {
        if (copyToZero(in, out)) return;
    }
    while (in.at != in.end && *in.at != 0 && out.at != out.end) *out.at++ = *in.at++;
}

// Takes a run of zero bytes from the input, of at most kLongMax, and gives its length.
size_t takeZeros(Input& in) {
    const uint8_t* const start = in.at;
    const uint8_t* const end = start + std::min(in.left(), kLongMax);
    const uint8_t* at = start;
    while (end - at >= 8) {
        const uint64_t word = loadLittle<uint64_t>(at);
        if (word != 0) {
            at += static_cast<size_t>(std::countr_zero(word)) / 8;
            break;
        }
        at += 8;
    }
    while (at != end && *at == 0) ++at;
    in.at = at;
    return static_cast<size_t>(at - start);
}

// Writes the sequence of a run of zeros; false if it does not fit. A single zero takes the byte
// behind it with it.
bool writeZeros(size_t zeros, Input& in, Output& out) {
    const size_t size = zeros <= kShortMax ? 2 : zeros <= kMediumMax ? 3 : 4;
    if (out.left() < size) return false;
    uint8_t* const to = out.at;
    to[0] = 0;
    if (zeros == 1 && in.at != in.end && *in.at < kIllegal) {
        to[1] = *in.at++;
    } else if (zeros <= kShortMax) {
        to[1] = static_cast<uint8_t>(kIllegal + zeros);
    } else if (zeros <= kMediumMax) {
        to[1] = kMedium;
        to[2] = static_cast<uint8_t>(zeros - kMediumMin);
    } else {
        to[1] = kLong;
        storeBig(to + 2, static_cast<uint16_t>(zeros));
    }
    out.at += size;
    return true;
}

// Encodes while there is ample room on both sides and runs of zeros are shorter than a word: with
// as few branches as possible, since none of them can be predicted, and without a load that waits
// for where the zero was found.
void encodeFast(Input& in, Output& out) {
    while (in.left() >= 16 && out.left() >= 16) {
        const uint64_t word = loadLittle<uint64_t>(in.at);
        const uint64_t behind = loadLittle<uint64_t>(in.at + 8);
        storeLittle(out.at, word);
        const size_t literals = bytesBeforeZero(word);
        in.at += literals;
        out.at += literals;
        if (literals == 8) continue;
        const size_t bits = 8 * literals;
        const uint64_t fromZero = word >> bits | behind << 1 << (63 - bits);
        if (fromZero == 0) return;
        const size_t zeros = static_cast<size_t>(std::countr_zero(fromZero)) / 8;
        const auto next = static_cast<uint8_t>(fromZero >> 8 * zeros);
        const bool takesNext = (zeros == 1) & (next < kIllegal);
        out.at[0] = 0;
        out.at[1] = static_cast<uint8_t>(takesNext ? next : kIllegal + zeros);
        in.at += zeros + takesNext;
        out.at += 2;
    }
}

// Decodes likewise, while runs of zeros have their length in the second byte.
void decodeFast(Input& in, Output& out) {
    constexpr size_t kZeroBlock = 32;
    static_assert(kZeroBlock > kShortMax);
    while (in.left() >= 16 && out.left() >= 8 + kZeroBlock) {
        if (!copyToZero(in, out)) continue;
        const uint8_t code = in.at[1];
        if (code == kIllegal || code >= kMedium) return;
        const bool literal = code < kIllegal;
        std::memset(out.at, 0, kZeroBlock);
        out.at[1] = literal ? code : 0;
        in.at += 2;
        out.at += literal ? 2 : code - kIllegal;
    }
}

[[noreturn, gnu::cold]] void fail(const char* message) {
    throwWith<ParsingException>(message);
}

// The count of zeros that the sequence code announces; reads what else belongs to it.
size_t readZeros(uint8_t code, Input& in) {
    if (code == kIllegal) fail("Illegal special value");
    if (code < kMedium) return code - kIllegal;
    if (code == kMedium) {
        if (in.at == in.end) fail("RLE zero count is incomplete");
        return *in.at++ + kMediumMin;
    }
    if (in.left() < 2) fail("RLE extended zero count is incomplete");
    const size_t zeros = loadBig<uint16_t>(in.at);
    in.at += 2;
    if (zeros < kLongMin) {
        throwWith<ParsingException>("Illegal RLE extended zero count: ", std::to_string(zeros));
    }
    return zeros;
}

}  // namespace

size_t rle0Encode(const uint8_t* source, size_t size, uint8_t* destination, size_t capacity) {
    Input in{source, source + size};
    Output out{destination, destination + capacity};
    while (in.at != in.end) {
        encodeFast(in, out);
        copyLiterals(in, out);
        if (in.at == in.end) break;
        if (*in.at != 0) return 0;  // the output is full
        if (!writeZeros(takeZeros(in), in, out)) return 0;
    }
    return static_cast<size_t>(out.at - destination);
}

size_t rle0Decode(const uint8_t* source, size_t size, uint8_t* destination, size_t capacity) {
    Input in{source, source + size};
    Output out{destination, destination + capacity};
    while (in.at != in.end && out.at < out.end) {
        decodeFast(in, out);
        copyLiterals(in, out);
        if (in.at == in.end || out.at == out.end) break;
        if (++in.at == in.end) fail("RLE zero is incomplete");
        const uint8_t code = *in.at++;
        if (code < kIllegal) {
            out.at[0] = 0;
            out.at[1] = code;  // may be the byte of slack
            out.at += 2;
            continue;
        }
        const size_t zeros = readZeros(code, in);
        if (zeros > out.left()) fail("RLE zero count exceeds destination size");
        std::memset(out.at, 0, zeros);
        out.at += zeros;
    }
    return static_cast<size_t>(out.at - destination);
}

}  // namespace quillmere
