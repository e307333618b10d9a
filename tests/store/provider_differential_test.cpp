// Random operations on objects leave the same records with every provider.

#include <algorithm>
#include <array>
#include <functional>
#include <random>

#include "kv/db_cursor.h"
#include "store/index_test.h"
#include "support/seed.h"

namespace quillmere {
namespace {

constexpr uint64_t kLongId = 0x100000000;
constexpr uint32_t kCustomers = 1;
constexpr uint32_t kOrders = 2;
constexpr uint32_t kCustomerId = 2;  // property of an order
constexpr uint32_t kNote = 3;        // property of an order
constexpr uint32_t kFriends = 1;     // relation of customers to customers

class Side {
public:
    explicit Side(const std::string& prefix) {
        options_.directory = prefix + dir_.path("db");
        options_.maxDataSizeInKb = 1000;  // keeps the total size
        options_.walMaxFileSizeInKb = 8;  // snapshots in between
        reopen();
    }
    void reopen() {
        store_.reset();
        store_ = std::make_unique<ObjectStore>(options_);
        store_->setSchema(TestSchema()
                              .entity(kCustomers, "Customer")
                              .relation(kFriends, kCustomers)
                              .entity(kOrders, "Order")
                              .toOne(kCustomerId, "customerId", kCustomers)
                              .property(kNote, "note", PropertyType::String, kPropertyIndexed)
                              .build());
    }
    ObjectStore& store() { return *store_; }
    std::unique_ptr<Cursor> cursor(Transaction& tx, uint32_t entityId) {
        return tx.createCursor(&store_->requireSchema()->entityById(entityId));
    }
    // All records, key and value.
    std::vector<std::string> records() {
        const auto tx = store_->beginTx(TxMode::Read);
        const auto cursor = tx->createDbCursor();
        std::vector<std::string> result;
        Bytes key, value;
        for (bool on = cursor->first(key, value); on; on = cursor->next(key, value)) {
            result.push_back(key.toHex(64) + "=" + value.toHex(256));
        }
        return result;
    }

private:
    TempDir dir_;
    StoreOptions options_;
    std::unique_ptr<ObjectStore> store_;
};

void put(Cursor& cursor, uint64_t id, std::vector<ObjectField> fields) {
    fields.push_back({1, id});
    const ObjectBytes object = makeObjectFrom(fields);
    cursor.put(id, object.data(), object.size(), kPut);
}

// A whole transaction of random operations; the same for the same seed.
std::vector<bool> runTransaction(Side& side, uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<bool> results;
    const auto id = [&] { return 1 + random() % 20 + (random() % 5 == 0 ? kLongId : 0); };
    const auto tx = side.store().beginTx(TxMode::Write);
    const auto customers = side.cursor(*tx, kCustomers);
    const auto orders = side.cursor(*tx, kOrders);
    for (int i = 0; i < 25; ++i) {
        const uint64_t one = id();
        const uint64_t other = id();
        switch (random() % 8) {
            case 0:
            case 1: put(*customers, one, {}); break;
            case 2:
            case 3:
                put(*orders, one, {{kCustomerId, customers->seek(other) ? other : 0},
                                   {kNote, std::string(random() % 40, 'n')}});
                break;
            case 4: results.push_back(customers->remove(one)); break;
            case 5: results.push_back(orders->remove(one)); break;
            case 6:
                if (random() % 20 == 0) orders->removeAll();
                break;
            default:
                if (customers->seek(one) && customers->seek(other)) {
                    customers->relationCursor(kFriends).put(one, other);
                }
        }
    }
    random() % 4 == 0 ? tx->abort() : tx->commit();
    return results;
}

TEST(ProviderDifferentialTest, ObjectsAndAllThatIsDerivedAgree) {
    std::mt19937 random(testSeed());
    std::array<Side, 3> sides{Side(""), Side("memory:"), Side("memory-wal:")};
    for (int round = 0; round < 200; ++round) {
        const uint32_t seed = random();
        const std::vector<bool> expected = runTransaction(sides[0], seed);
        for (size_t i = 1; i < sides.size(); ++i) {
            ASSERT_EQ(runTransaction(sides[i], seed), expected) << "round " << round;
        }
        for (Side& side : sides) {
            if (seed % 50 == 0) side.store().dropAllRaw();
            if (round % 3 == 0) side.reopen();
        }
        const std::vector<std::string> records = sides[0].records();
        for (size_t i = 1; i < sides.size(); ++i) {
            ASSERT_EQ(sides[i].records(), records) << "side " << i << ", round " << round;
        }
    }
}

}  // namespace
}  // namespace quillmere
