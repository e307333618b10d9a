#include "schema/siphash.h"

#include <gtest/gtest.h>

#include <vector>

#include "core/bytes.h"

namespace quillmere {
namespace {

// The key and the messages of the published vectors: 0, 1, 2 ...
std::string hashOfFirst(size_t count) {
    SipHashKey key;
    for (size_t i = 0; i < key.size(); ++i) key[i] = static_cast<uint8_t>(i);
    std::vector<uint8_t> message(count);
    for (size_t i = 0; i < count; ++i) message[i] = static_cast<uint8_t>(i);
    const SipHash128 hash = sipHash128(key, message);
    return Bytes(hash.data(), hash.size()).toHex(hash.size());
}

TEST(SipHash, GivesThePublishedValuesAroundWordBorders) {
    EXPECT_EQ(hashOfFirst(0), "a3817f04ba25a8e66df67214c7550293");
    EXPECT_EQ(hashOfFirst(1), "da87c1d86b99af44347659119b22fc45");
    EXPECT_EQ(hashOfFirst(7), "a1f1ebbed8dbc153c0b84aa61ff08239");
    EXPECT_EQ(hashOfFirst(8), "3b62a9ba6258f5610f83e264f31497b4");
    EXPECT_EQ(hashOfFirst(15), "5493e99933b0a8117e08ec0f97cfc3d9");
    EXPECT_EQ(hashOfFirst(63), "5150d1772f50834a503e069a973fbd7c");
}

}  // namespace
}  // namespace quillmere
