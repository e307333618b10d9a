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

// Copies what stands in front of the next zero byte, as far as the output takes it.
void copyLiterals(Input& in, Output& out) {
    while (in.left() >= 8 && out.left() >= 8) {
        const uint64_t word = loadLittle<uint64_t>(in.at);
        storeLittle(out.at, word);
        const size_t literals = bytesBeforeZero(word);
        in.at += literals;
        out.at += literals;
        if (literals < 8) return;
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
