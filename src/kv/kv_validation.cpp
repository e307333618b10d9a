#include "kv/kv_validation.h"

#include <string>

#include "core/bytes.h"
#include "core/bytes_reader.h"
#include "core/checks.h"
#include "core/endian.h"
#include "core/error.h"
#include "core/flatbuffer_check.h"
#include "kv/db_cursor.h"
#include "kv/partition.h"

namespace quillmere {

namespace {

constexpr size_t kPrefixSize = 4;
constexpr size_t kMinIndexKeySize = 9;
constexpr size_t kShownKeySize = 8;

class KvValidator {
public:
    explicit KvValidator(DbCursor& cursor) : cursor_(cursor) {}

    KvValidationResult run() {
        for (bool found = cursor_.first(key_, value_); found; found = cursor_.next(key_, value_)) {
            checkOrder();
            ++result_.pairs;
            checkKv();
            previousKey_ = key_;
        }
        return result_;
    }

private:
    void checkOrder() {
        if (previousKey_.less(key_)) return;
        fail("keys are not ordered; cmp=" + std::to_string(key_.less(previousKey_) ? -1 : 0));
    }

    void checkKv() {
        result_.keyBytes += key_.size();
        result_.valueBytes += value_.size();
        require(!key_.empty(), "key is empty");
        const size_t size = key_.size() + value_.size();
        if (size % 4 != 0) {
            fail("Key size + value size not a multiple of 4: " + std::to_string(size));
        }
        const uint8_t* const keyData = key_.data();
        CHECK_STATE_AT(258, keyData);
        switch (static_cast<PartitionType>(keyData[0] >> 2)) {
            case PartitionType::System: return checkSystemPartition();
            case PartitionType::Sync: return checkSyncPartition();
            case PartitionType::Relation: return checkRelationPartition();
            case PartitionType::Entity: return checkEntityPartition();
            case PartitionType::Index: return checkIndexPartition();
            case PartitionType::KeyValue: return;
            default: return countUnknown();
        }
    }

    void checkSystemPartition() {
        require(key_.size() >= kPrefixSize, "invalid system key size: too small");
        switch (partitionIdOf(prefix())) {
            case partitionIdOf(kSchemaPrefix):
                if (prefix() != kSchemaPrefix) {
                    fail("illegal schema prefix: " + key_.toHex(kPrefixSize));
                }
                return require(key_.size() == 8, "invalid schema key size");
            case partitionIdOf(kUserPrefix):
                return require(key_.size() == 8, "invalid user key size");
            case partitionIdOf(kTotalSizePrefix):
                require(key_.size() == kPrefixSize, "invalid 'total size' key size");
                return require(value_.size() == 8, "invalid 'total size' data size");
            default: return countUnknown();
        }
    }

    // The lower bits of the two-byte prefix and a varint behind them tell the kind of the record.
    void checkSyncPartition() {
        constexpr const char* kTooSmall = "invalid sync key size: too small";
        require(key_.size() >= 2, kTooSmall);
        if ((loadBig<uint16_t>(key_.data()) & 0x3FF) != 1) return;
        BytesReader reader(key_.data() + 2, key_.size() - 2);
        uint64_t kind = 0;
        try {
            kind = reader.readVarint();
        } catch (const BytesReader::ReaderException&) {
            fail(kTooSmall);
        }
        if (kind == 0 || kind == 5 || kind >= 10) countUnknown();
    }

    void checkRelationPartition() {
        require(key_.size() >= kPrefixSize, "invalid relation key size: too small");
        const uint32_t subPart = subPartitionOf(prefix());
        if (subPart == 0 || subPart == 2) {
            require(key_.size() == 12 || key_.size() == 16,
                    "invalid key size in relation sub-partition 0/2");
        } else {
            CHECK_STATE_AT(103, subPart == 1 || subPart == 3);
            require(key_.size() == 16 || key_.size() == 20,
                    "invalid key size in relation sub-partition 1/3");
        }
        require(value_.empty(), "non-empty value for a relation entry");
    }

    void checkEntityPartition() {
        require(key_.size() >= kPrefixSize, "invalid object key size: too small");
        const uint32_t subPart = subPartitionOf(prefix());
        if (subPart > 1) fail("invalid object sub-partition: " + std::to_string(subPart));
        require(key_.size() == (subPart == 0 ? 8u : 12u), "invalid object key size");
        require(verifyFlatBuffer(value_.data(), value_.size(), anyFields),
                "invalid object data buffer");
    }

    void checkIndexPartition() {
        require(key_.size() >= kMinIndexKeySize, "invalid index key size");
        require(value_.size() < 4, "invalid padding value for an index entry");
    }

    uint32_t prefix() const { return loadBig<uint32_t>(key_.data()); }
    void countUnknown() { ++result_.unknownEntries; }
    void require(bool condition, const char* failure) const {
        if (!condition) fail(failure);
    }

    [[noreturn]] void fail(const std::string& text) const {
        const bool showKey = key_.size() >= 1 && key_.size() <= kShownKeySize;
        throw DbFileCorruptException(
            "KV validation failed; " + text + " (KV pair number: " +
            std::to_string(result_.pairs) +
            (showKey ? ", key: " + key_.toHex(kShownKeySize)
                     : ", key size: " + std::to_string(key_.size())) +
            ", data size: " + std::to_string(value_.size()) + ")");
    }

    DbCursor& cursor_;
    Bytes key_;
    Bytes value_;
    Bytes previousKey_;
    KvValidationResult result_;
};

}  // namespace

KvValidationResult validateKv(DbCursor& cursor) {
    return KvValidator(cursor).run();
}

}  // namespace quillmere
