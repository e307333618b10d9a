#include "kv/kv_validation.h"

#include <flatbuffers/flatbuffers.h>
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "core/error.h"
#include "kv/partition.h"
#include "kv_fixture.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

using Record = std::pair<std::string, std::string>;

// Gives records as they stand, also such that no store would hold.
class RecordCursor : public EmptyDbCursor {
public:
    explicit RecordCursor(std::vector<Record> records) : records_(std::move(records)) {}

    bool first(Bytes& outKey, Bytes& outValue) override {
        at_ = 0;
        return give(outKey, outValue);
    }
    bool next(Bytes& outKey, Bytes& outValue) override {
        ++at_;
        return give(outKey, outValue);
    }

private:
    bool give(Bytes& outKey, Bytes& outValue) {
        if (at_ >= records_.size()) return false;
        outKey = bytesOf(records_[at_].first);
        outValue = bytesOf(records_[at_].second);
        return true;
    }

    std::vector<Record> records_;
    size_t at_ = 0;
};

std::string prefixOf(uint32_t type, uint32_t id, uint32_t sub) {
    return bigEndian(partitionPrefix(type, id, sub));
}

std::string emptyObject() {
    flatbuffers::FlatBufferBuilder builder;
    builder.Finish(flatbuffers::Offset<flatbuffers::Table>(builder.EndTable(builder.StartTable())));
    return {reinterpret_cast<const char*>(builder.GetBufferPointer()), builder.GetSize()};
}

std::string failureOf(std::vector<Record> records) {
    RecordCursor cursor(std::move(records));
    return messageOf<DbFileCorruptException>([&] { validateKv(cursor); });
}

// The middle of the message.
std::string problemWith(const std::string& key, const std::string& value = "") {
    const std::string message = failureOf({{key, value}});
    const size_t begin = std::string("KV validation failed; ").size();
    return message.substr(begin, message.rfind(" (KV pair number: 1, key") - begin);
}

const std::string k4(4, '\1'), k8(8, '\1');

TEST(KvValidation, CountsEveryKindOfRecordOfALayoutThatIsRight) {
    StoreInDir dir;
    dir.open();
    const std::string object = emptyObject();
    const std::vector<Record> records = {
        {keyOf(0, 0), ""},
        {keyOf(kUserPrefix, 1), ""},
        {bigEndian(kTotalSizePrefix), k8},
        {prefixOf(0, 300, 0), ""},                    // unknown
        {std::string("\4\1\5\0", 4), ""},             // sync, unknown kind
        {std::string("\4\1\6\0", 4), ""},
        {prefixOf(2, 1, 0) + k8, ""},
        {prefixOf(2, 1, 3) + k8 + k8, ""},
        {prefixOf(4, 1, 0), k4},                      // unknown
        {prefixOf(6, 1, 0) + k4, object},
        {prefixOf(6, 1, 1) + k8, object},
        {prefixOf(8, 1, 0) + k8 + "a", "\1\2\3"},
        {prefixOf(9, 1, 0), k4},                      // unknown
        {prefixOf(16, 1, 0) + "k", "any"},
    };
    size_t keyBytes = 0, valueBytes = 0;
    for (const auto& [key, value] : records) {
        dir.commitPut(key, value);
        keyBytes += key.size();
        valueBytes += value.size();
    }
    auto tx = dir.begin(true);
    const KvValidationResult result = validateKv(*tx->createDbCursor());
    EXPECT_EQ(result.pairs, records.size());
    EXPECT_EQ(result.keyBytes, keyBytes);
    EXPECT_EQ(result.valueBytes, valueBytes);
    EXPECT_EQ(result.unknownEntries, 4u);
}

TEST(KvValidation, ReportsEachBreachOfTheLayout) {
    EXPECT_EQ(problemWith("kk", "vvvv"), "Key size + value size not a multiple of 4: 6");
    EXPECT_EQ(problemWith(std::string(3, '\0'), "1"), "invalid system key size: too small");
    EXPECT_EQ(problemWith(std::string("\0\0\0\1", 4)), "illegal schema prefix: 00000001");
    EXPECT_EQ(problemWith(std::string(4, '\0')), "invalid schema key size");
    EXPECT_EQ(problemWith(bigEndian(kUserPrefix)), "invalid user key size");
    EXPECT_EQ(problemWith(keyOf(kTotalSizePrefix, 1)), "invalid 'total size' key size");
    EXPECT_EQ(problemWith(bigEndian(kTotalSizePrefix), k4), "invalid 'total size' data size");
    EXPECT_EQ(problemWith("\4", "123"), "invalid sync key size: too small");
    EXPECT_EQ(problemWith("\4\1", "12"), "invalid sync key size: too small");
    EXPECT_EQ(problemWith("\x08", "123"), "invalid relation key size: too small");
    EXPECT_EQ(problemWith(prefixOf(2, 1, 1) + k8),
              "invalid key size in relation sub-partition 1/3");
    EXPECT_EQ(problemWith(prefixOf(2, 1, 2) + k4),
              "invalid key size in relation sub-partition 0/2");
    EXPECT_EQ(problemWith(prefixOf(2, 1, 0) + k8, k4), "non-empty value for a relation entry");
    EXPECT_EQ(problemWith("\x18", "123"), "invalid object key size: too small");
    EXPECT_EQ(problemWith(prefixOf(6, 1, 2) + k4), "invalid object sub-partition: 2");
    EXPECT_EQ(problemWith(prefixOf(6, 1, 0) + k8), "invalid object key size");
    EXPECT_EQ(problemWith(prefixOf(6, 1, 1) + k4), "invalid object key size");
    EXPECT_EQ(problemWith(prefixOf(6, 1, 0) + k4, std::string(16, '\x7F')),
              "invalid object data buffer");
    EXPECT_EQ(problemWith(prefixOf(8, 1, 0) + k4), "invalid index key size");
    EXPECT_EQ(problemWith(prefixOf(8, 1, 0) + k8, k4),
              "invalid padding value for an index entry");
}

TEST(KvValidation, NamesTheRecordThatFailed) {
    const std::string schemaKey = keyOf(0, 1), nineBytes = schemaKey + "\1";
    EXPECT_EQ(failureOf({{schemaKey, ""}, {nineBytes, "123"}}),
              "KV validation failed; invalid schema key size (KV pair number: 2, key size: 9, data "
              "size: 3)");
    EXPECT_EQ(failureOf({{keyOf(kUserPrefix, 0xAB), "1"}}),
              "KV validation failed; Key size + value size not a multiple of 4: 9 (KV pair number: "
              "1, key: 00000004000000ab, data size: 1)");
    EXPECT_EQ(failureOf({{keyOf(0, 2), ""}, {keyOf(0, 1), ""}}),
              "KV validation failed; keys are not ordered; cmp=-1 (KV pair number: 1, key: "
              "0000000000000001, data size: 0)");
    EXPECT_EQ(failureOf({{keyOf(0, 2), ""}, {keyOf(0, 2), ""}}),
              "KV validation failed; keys are not ordered; cmp=0 (KV pair number: 1, key: "
              "0000000000000002, data size: 0)");
}

}  // namespace
}  // namespace quillmere
