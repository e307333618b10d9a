#include "schema/siphash.h"

#include <bit>
#include <cstddef>

#include "core/endian.h"

namespace quillmere {
namespace {

constexpr int kCompressionRounds = 2;
constexpr int kFinalisationRounds = 4;

struct State {
    uint64_t v0, v1, v2, v3;

    void round() {
        v0 += v1;
        v1 = std::rotl(v1, 13) ^ v0;
        v0 = std::rotl(v0, 32);
        v2 += v3;
        v3 = std::rotl(v3, 16) ^ v2;
        v0 += v3;
        v3 = std::rotl(v3, 21) ^ v0;
        v2 += v1;
        v1 = std::rotl(v1, 17) ^ v2;
        v2 = std::rotl(v2, 32);
    }

    void compress(uint64_t word) {
        v3 ^= word;
        for (int i = 0; i < kCompressionRounds; ++i) round();
        v0 ^= word;
    }

    uint64_t finalise() {
        for (int i = 0; i < kFinalisationRounds; ++i) round();
        return v0 ^ v1 ^ v2 ^ v3;
    }
};

// The last word: what is left of the data, and its size in the top byte.
uint64_t lastWord(std::span<const uint8_t> rest, size_t size) {
    uint64_t word = static_cast<uint64_t>(size) << 56;
    for (size_t i = 0; i < rest.size(); ++i) word |= static_cast<uint64_t>(rest[i]) << (8 * i);
    return word;
}

}  // namespace

SipHash128 sipHash128(const SipHashKey& key, std::span<const uint8_t> data) {
    const uint64_t k0 = loadLittle<uint64_t>(key.data());
    const uint64_t k1 = loadLittle<uint64_t>(key.data() + 8);
    // "somepseudorandomlygeneratedbytes", with the mark of the 128-bit form in v1.
    State state{k0 ^ 0x736f6d6570736575u, k1 ^ 0x646f72616e646f6du ^ 0xee,
                k0 ^ 0x6c7967656e657261u, k1 ^ 0x7465646279746573u};
    size_t at = 0;
    for (; data.size() - at >= 8; at += 8) state.compress(loadLittle<uint64_t>(data.data() + at));
    state.compress(lastWord(data.subspan(at), data.size()));

    SipHash128 result;
    state.v2 ^= 0xee;
    storeLittle<uint64_t>(result.data(), state.finalise());
    state.v1 ^= 0xdd;
    storeLittle<uint64_t>(result.data() + 8, state.finalise());
    return result;
}

}  // namespace quillmere
