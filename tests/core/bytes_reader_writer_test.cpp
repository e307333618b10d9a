#include <algorithm>
#include <string>
#include <vector>

#include "core/bytes_reader.h"
#include "core/bytes_writer.h"
#include "core/error.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

Bytes varint(uint64_t value) {
    Bytes target;
    BytesWriter writer(target);
    writer.writeVarint(value);
    writer.finish();
    return target;
}

TEST(Varint, ShortestFormAtEveryBorderInNumericOrder) {
    std::vector<uint64_t> values{0, 1};
    for (uint32_t bits = 7; bits <= 63; bits += 7) {
        values.insert(values.end(), {(uint64_t{1} << bits) - 1, uint64_t{1} << bits});
    }
    values.push_back(~uint64_t{0});
    Bytes previous;
    for (const uint64_t value : values) {
        const Bytes bytes = varint(value);
        size_t size = 1;
        while (size < 9 && value >> (7 * size) != 0) ++size;
        EXPECT_EQ(bytes.size(), size) << value;
        EXPECT_EQ(BytesReader(bytes).readVarint(), value);
        EXPECT_TRUE(previous.less(bytes)) << value;
        previous = bytes;
    }
}

TEST(Varint, GoldenBytes) {
    EXPECT_EQ(varint(127).toHex(9), "7f");
    EXPECT_EQ(varint(128).toHex(9), "8080");
    EXPECT_EQ(varint(16383).toHex(9), "bfff");
    EXPECT_EQ(varint(16384).toHex(9), "c04000");
    EXPECT_EQ(varint(uint64_t{1} << 56).toHex(9), "ff0100000000000000");
    EXPECT_EQ(varint(~uint64_t{0}).toHex(9), "ffffffffffffffffff");
    const uint8_t longForm[] = {0xE0, 0x00, 0x00, 0x05};
    EXPECT_EQ(BytesReader(longForm, 4).readVarint(), 5u);
}

TEST(BytesReader, ReadsLittleEndianAtAnyAlignment) {
    const uint8_t bytes[] = {9, 1, 2, 3, 4, 5, 6, 7, 8, 0xFF, 0, 0, 0, 'o', 'k', 'a', 'b'};
    BytesReader reader(bytes, sizeof bytes);
    EXPECT_EQ(reader.readByte(), 9u);
    EXPECT_EQ(reader.readU64(), 0x0807060504030201u);
    EXPECT_EQ(reader.readU32(), 0xFFu);
    EXPECT_EQ(reader.readString(2), "ok");
    Bytes target;
    reader.readBytesInto(1, target, BytesReader::ReadMode::View);
    EXPECT_EQ(target.data(), bytes + 15);
    reader.readBytesInto(1, target, BytesReader::ReadMode::Copy);
    EXPECT_TRUE(target.owned());
    EXPECT_EQ(target.text(), "b");
    EXPECT_EQ(reader.remaining(), 0u);
}

TEST(BytesReader, OverflowLeavesThePosition) {
    const uint8_t bytes[] = {7, 0xC0, 0x40};
    BytesReader reader(bytes, sizeof bytes);
    reader.readByte();
    EXPECT_EQ(messageOf<BytesReader::BufferOverflowException>([&] { reader.readVarint(); }),
              "Expected 3 available bytes but only got 2 at offset 1");
    EXPECT_EQ(reader.position(), 1u);
    reader.readBytes(2);
    EXPECT_EQ(messageOf<BytesReader::BufferOverflowException>([&] { reader.readVarint(); }),
              "Expected 1 available bytes but only got 0 at offset 3");
    EXPECT_EQ(messageOf<IllegalStateException>([] { BytesReader(nullptr, 0); }),
              "State condition failed in BytesReader:14: bytes");
}

TEST(BytesReader, VarintBeyond32BitsResetsThePosition) {
    const Bytes bytes = varint(uint64_t{1} << 32);
    BytesReader reader(bytes);
    EXPECT_EQ(messageOf<BytesReader::VerificationException>([&] { reader.readVarint32(); }),
              "Varint out of range: 4294967296");
    EXPECT_EQ(reader.position(), 0u);
    EXPECT_EQ(BytesReader(varint(UINT32_MAX)).readVarint32(), UINT32_MAX);
}

std::vector<uint8_t> deltaCodes(const std::vector<uint64_t>& values) {
    Bytes target;
    BytesWriter writer(target);
    uint64_t previous = 0;
    for (const uint64_t value : values) {
        writer.writeDelta(previous, value);
        previous = value;
    }
    writer.finish();
    BytesReader reader(target);
    uint64_t read = 0;
    for (const uint64_t value : values) {
        read = reader.readDelta(read);
        EXPECT_EQ(read, value);
    }
    EXPECT_EQ(reader.remaining(), 0u);
    return {target.data(), target.data() + target.size()};
}

TEST(Delta, WritesTheShortestFormAndReadsItBack) {
    using Codes = std::vector<uint8_t>;
    EXPECT_EQ(deltaCodes({1, 2, 3, 3}), (Codes{1, 1, 1, 0}));
    EXPECT_EQ(deltaCodes({10, 135, 136}), (Codes{10, 125, 0, 1}));
    EXPECT_EQ(deltaCodes({1000000, 1000380}).back(), 255);
    // A large step, shorter than the number itself, and one that is not.
    EXPECT_EQ(deltaCodes({uint64_t{1} << 40, (uint64_t{1} << 40) + 381}).size(), 1 + 6 + 1 + 2u);
    EXPECT_EQ(deltaCodes({uint64_t{1} << 40}).front(), 127);
    EXPECT_EQ(deltaCodes({100, 99}), (Codes{100, 255}));
    deltaCodes({uint64_t{1} << 50, (uint64_t{1} << 50) - 125, (uint64_t{1} << 50) - 251,
                (uint64_t{1} << 50) - 900, ~uint64_t{0}, 0});
}

TEST(Delta, ReaderRefusesBadCodesAndStepsOutOfRange) {
    const auto read = [](std::vector<uint8_t> codes, uint64_t previous) {
        BytesReader(codes.data(), codes.size()).readDelta(previous);
    };
    EXPECT_EQ(messageOf<BytesReader::VerificationException>([&] { read({128}, 5); }),
              "Negative varint announced, but type is unsigned");
    EXPECT_EQ(messageOf<NumericOverflowException>([&] { read({3}, ~uint64_t{0} - 1); }),
              "Numeric overflow: 18446744073709551614 + 3");
    EXPECT_EQ(messageOf<NumericOverflowException>([&] { read({253}, 2); }),
              "Numeric underflow: 2 - 3");
    EXPECT_THROW(read({125}, 0), BytesReader::BufferOverflowException);
}

TEST(BytesWriter, GrowsByDoublingStepsUpToTheMaximum) {
    Bytes target;
    BytesWriter writer(target, 16, 64);
    std::vector<size_t> sizes;
    for (int i = 0; i < 5; ++i) {
        writer.writeZeros(target.size() - writer.position());
        writer.writeByte(1);
        sizes.push_back(target.size());
    }
    // By at least 16 + 1; the growth size goes 16, 32, 64, 64.
    EXPECT_EQ(sizes, (std::vector<size_t>{17, 49, 113, 177, 241}));
}

TEST(BytesWriter, NonGrowingWriterFillsItsBlockToTheLastByte) {
    uint8_t block[3] = {};
    Bytes target(block, sizeof block);
    BytesWriter writer(target, 0);
    writer.writeVarint(300);
    writer.writeVarint(1);
    EXPECT_EQ(messageOf<IllegalStateException>([&] { writer.writeVarint(1); }),
              "Non-growing bytes buffer of size 3 exhausted. Pos: 3, requested: 1");
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { BytesWriter(target, 1024); }),
              "For non-allocated bytes you must use a non-growing writer");
}

TEST(BytesWriter, SeeksBackwardsOnly) {
    Bytes target;
    BytesWriter writer(target);
    writer.writeBytesWithSize("hello", 5);
    writer.seek(6);
    EXPECT_EQ(messageOf<IllegalStateException>([&] { writer.seek(7); }),
              "Cannot seek beyond written: 6");
    writer.seek(1);
    writer.writeBytes("J", 1);
    writer.finish();
    EXPECT_EQ(target.text(), "\x05J");
}

TEST(BytesWriter, GoesOnAfterFinishAndStartsOverAfterReset) {
    Bytes target;
    BytesWriter writer(target, 16, 1024, 64);
    writer.writeBytes("ab", 2);
    writer.finish();
    writer.writeBytes("cd", 2);
    writer.finish();
    EXPECT_EQ(target.text(), "abcd");

    writer.reset();
    writer.writeZeros(200);
    writer.finish();
    EXPECT_EQ(target.size(), 200u);
    writer.reset();
    EXPECT_EQ(target.size(), 64u) << "a block above the shrink size is cut to it";
    writer.writeU32(0x01020304);
    writer.writeU64(5);
    writer.finish();
    EXPECT_EQ(target.toHex(12), "040302010500000000000000");
}

TEST(BytesWriter, RandomContentRoundTrips) {
    uint64_t state = 42;
    std::vector<std::string> texts;
    Bytes target;
    BytesWriter writer(target, 24, 0x80000);
    for (int i = 0; i < 300; ++i) {
        state = state * 6364136223846793005u + 1442695040888963407u;
        texts.emplace_back(state >> 55, static_cast<char>(state >> 40));
        writer.writeBytesWithSize(texts.back().data(), texts.back().size());
    }
    writer.finish();
    BytesReader reader(target);
    for (const std::string& text : texts) {
        EXPECT_EQ(reader.readString(reader.readVarint32()), text);
    }
    EXPECT_EQ(reader.remaining(), 0u);
}

}  // namespace
}  // namespace quillmere
