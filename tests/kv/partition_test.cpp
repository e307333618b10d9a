#include "kv/partition.h"

#include <gtest/gtest.h>

#include <cstring>

#include "core/error.h"
#include "kv/db_provider.h"
#include "kv/db_registry.h"
#include "kv/db_store.h"
#include "support/expect_throw.h"
#include "support/log_capture.h"

namespace quillmere {
namespace {

TEST(Partition, PrefixCombinesTypeIdAndSubPartition) {
    EXPECT_EQ(partitionPrefix(63, 0xFFFFFF, 3), 0xFFFFFFFFu);
    EXPECT_EQ(partitionPrefix(PartitionType::KeyValue, 1), kKeyValuePrefix);
    EXPECT_EQ(partitionPrefix(PartitionType::System, 1), kUserPrefix);
    EXPECT_EQ(partitionPrefix(PartitionType::System, 256), kTotalSizePrefix);
    const uint32_t bigEndian = partitionPrefixBigEndian(6, 2, 1);
    EXPECT_EQ(std::memcmp(&bigEndian, "\x18\0\0\x09", 4), 0);
    EXPECT_EQ(partitionTypeOf(0x18000009), 6u);
    EXPECT_EQ(partitionIdOf(0x18000009), 2u);
    EXPECT_EQ(subPartitionOf(0x18000009), 1u);
}

TEST(Partition, PrefixRefusesTypeThenSubPartitionThenId) {
    const auto failure = [](uint32_t type, uint64_t id, uint32_t subPartition) {
        return messageOf<IllegalArgumentException>(
            [&] { partitionPrefixBigEndian(type, id, subPartition); });
    };
    EXPECT_EQ(failure(64, 0, 4), "Invalid partition type: 64");
    EXPECT_EQ(failure(63, 0, 4), "Invalid sub partition: 4");
    EXPECT_EQ(failure(63, 0, 3), "Invalid ID for partition prefix: 0");
    EXPECT_EQ(failure(0, 0x1000000, 0), "Invalid ID for partition prefix: 16777216");
}

// A provider that is only found, never used.
class NamedProvider : public DbProvider {
public:
    std::unique_ptr<DbStore> createStore(const StoreOptions&) override { return nullptr; }
    uint32_t id() const override { return 99; }
    const char* name() const override { return "named"; }
    void prepareDirectory(const StoreOptions&) override {}
    std::string canonicalPath(const std::string& path) override { return path; }
    bool removeDbFiles(const StoreOptions&, bool) override { return false; }
    bool dbFileExists(const StoreOptions&) override { return false; }
    uint64_t dbFileSize(const StoreOptions&) override { return 0; }
    uint32_t dbFileMode(const StoreOptions&) override { return 0; }
};

TEST(DbRegistry, PrefixAtTheStartPicksTheProviderAndAnyOtherDirectoryTheDefault) {
    DbRegistry& registry = DbRegistry::instance();
    const LogCapture log;
    registry.registerPrefix("named-test:", std::make_shared<NamedProvider>(), true);
    EXPECT_TRUE(log.contains(" [INFO ] [DbRegi] Registering provider for prefix \"named-test:\" "
                             "at registry 1: named (99)\n"));
    EXPECT_STREQ(registry.get("named-test:x")->name(), "named");
    EXPECT_STREQ(registry.get("x/named-test:")->name(), "LMDB");
    EXPECT_EQ(registry.byId(1), registry.find("directory"));
    EXPECT_EQ(registry.byId(99), registry.find("named-test:"));
    EXPECT_EQ(registry.byId(98), nullptr);
    EXPECT_THROW(registry.registerPrefix("x", nullptr, false), ArgumentNullException);
    EXPECT_THROW(registry.registerDefault(nullptr, false), ArgumentNullException);
}

}  // namespace
}  // namespace quillmere
