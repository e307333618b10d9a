#include "store/object_table.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "support/object.h"

namespace quillmere {
namespace {

constexpr uint16_t kIdSlot = 4;
constexpr uint16_t kNumberSlot = 8;

// Bytes on the heap without any room behind them, so that a sanitizer sees each step outside.
struct ExactBytes {
    explicit ExactBytes(const uint8_t* from, size_t size)
        : data(new uint8_t[size]), size(size) {
        std::copy(from, from + size, data.get());
    }
    std::unique_ptr<uint8_t[]> data;
    size_t size;
};

uint64_t sum = 0;  // of all bytes read, so that reading them is not left out

// As a string, as a vector of numbers and as a vector of strings.
void readBehind(const ObjectTable& table, uint16_t slot) {
    for (const char c : table.string(slot)) sum += static_cast<uint8_t>(c);
    const ObjectVector numbers = table.vector(slot, sizeof(uint64_t));
    for (size_t i = 0; i < numbers.count; ++i) sum += numbers.at<uint64_t>(i);
    const ObjectVector strings = table.stringVector(slot);
    for (size_t i = 0; i < strings.count; ++i) {
        for (const char c : table.stringAt(strings, i)) sum += static_cast<uint8_t>(c);
    }
}

void touchAllFields(const ExactBytes& bytes) {
    const MutableObjectTable table(bytes.data.get(), bytes.size);
    for (uint32_t slot = 0; slot <= 0xFFFF; slot += 1) {
        uint8_t* const field = table.field(static_cast<uint16_t>(slot), sizeof(uint64_t));
        readBehind(table, static_cast<uint16_t>(slot));
        if (field) storeLittle<uint64_t>(field, 0);
        if (!field && slot > 64 && slot < 0xFFF0) slot = 0xFFF0;  // the middle is all the same
    }
}

TEST(ObjectTable, ReadsFieldsAndTakesAbsentOnesAsZero) {
    const ObjectBytes object = makeObject({{1, uint64_t{7}}, {3, int64_t{-2}}});
    const ObjectTable table(object.data(), object.size());
    ASSERT_TRUE(table);
    EXPECT_EQ(table.scalar<uint64_t>(kIdSlot), 7u);
    EXPECT_EQ(static_cast<int64_t>(table.scalar<uint64_t>(kNumberSlot)), -2);
    EXPECT_EQ(table.field(6, 1), nullptr);       // skipped
    EXPECT_EQ(table.field(10, 1), nullptr);      // behind the vtable
    EXPECT_EQ(table.field(0xFFFE, 1), nullptr);
    EXPECT_EQ(table.field(2, 1), nullptr);       // no slot, but the vtable's own head
}

TEST(ObjectTable, ReadsAtAnyAlignment) {
    const ObjectBytes object = makeObject({{1, uint64_t{0x1122334455667788}}});
    for (size_t shift = 1; shift < 8; ++shift) {
        std::vector<uint8_t> shifted(shift);
        shifted.insert(shifted.end(), object.begin(), object.end());
        const ObjectTable table(shifted.data() + shift, object.size());
        EXPECT_EQ(table.scalar<uint64_t>(kIdSlot), 0x1122334455667788u);
    }
}

TEST(ObjectTable, StaysInsideOfTruncatedBytes) {
    const ObjectBytes object = makeObject({{1, uint64_t{7}}, {2, std::string("text")}, {3, 1.5}});
    EXPECT_FALSE(ObjectTable(nullptr, 0));
    EXPECT_FALSE(ObjectTable(nullptr, 100));
    for (size_t size = 0; size < object.size(); ++size) {
        touchAllFields(ExactBytes(object.data(), size));
    }
    EXPECT_FALSE(ObjectTable(object.data(), 7));
}

TEST(ObjectTable, StaysInsideOfDamagedBytes) {
    const ObjectBytes object = makeObject({{1, uint64_t{7}}, {2, std::string("text")}, {3, 1.5}});
    for (size_t at = 0; at < object.size(); ++at) {
        for (const uint8_t value : {0x00, 0x01, 0x7F, 0x80, 0xFF}) {
            ExactBytes damaged(object.data(), object.size());
            damaged.data[at] = value;
            touchAllFields(damaged);
        }
    }
    std::mt19937_64 random(20250101);
    for (int round = 0; round < 2000; ++round) {
        uint8_t noise[40];
        for (uint8_t& byte : noise) byte = static_cast<uint8_t>(random() % (round % 2 ? 256 : 24));
        touchAllFields(ExactBytes(noise, random() % sizeof noise));
    }
}

}  // namespace
}  // namespace quillmere
