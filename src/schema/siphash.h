#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace quillmere {

using SipHashKey = std::array<uint8_t, 16>;
using SipHash128 = std::array<uint8_t, 16>;

// SipHash-2-4 with 128 bits of output. Any thread.
SipHash128 sipHash128(const SipHashKey& key, std::span<const uint8_t> data);

}  // namespace quillmere
