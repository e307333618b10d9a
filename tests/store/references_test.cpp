// What removing objects does to the objects and links that refer to them.

#include <map>
#include <random>
#include <set>

#include "store/index_test.h"
#include "support/expect_throw.h"
#include "support/seed.h"

namespace quillmere {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr uint64_t kLongId = 0x100000000;

// Customers have friends among themselves; orders belong to a customer and hold products; orders
// also follow an order.
constexpr uint32_t kCustomers = 1;
constexpr uint32_t kOrders = 2;
constexpr uint32_t kProducts = 3;
constexpr uint32_t kCustomerId = 2;   // property of an order
constexpr uint32_t kFollows = 3;      // property of an order
constexpr uint32_t kNote = 4;         // property of an order
constexpr uint32_t kContains = 1;     // relation of orders to products
constexpr uint32_t kFriends = 2;      // relation of customers to customers

class ReferencesTest : public IndexTest {
protected:
    void SetUp() override {
        StoreOptions options;
        options.maxDataSizeInKb = 1000;  // so that the data size is tracked
        open(TestSchema()
                 .entity(kCustomers, "Customer")
                 .relation(kFriends, kCustomers)
                 .entity(kOrders, "Order")
                 .toOne(kCustomerId, "customerId", kCustomers)
                 .toOne(kFollows, "followsId", kOrders)
                 .property(kNote, "note", PropertyType::String, kPropertyIndexed)
                 .relation(kContains, kProducts)
                 .entity(kProducts, "Product"),
             options);
        tx_ = write();
        customers_ = cursor(*tx_, kCustomers);
        orders_ = cursor(*tx_, kOrders);
        products_ = cursor(*tx_, kProducts);
    }
    void TearDown() override {
        customers_.reset();
        orders_.reset();
        products_.reset();
        tx_.reset();
    }

    void putOrder(uint64_t id, uint64_t customer, uint64_t follows = 0) {
        put(*orders_, id,
            {{kCustomerId, customer}, {kFollows, follows}, {kNote, std::string("note")}});
    }
    uint64_t reference(uint64_t orderId, uint32_t propertyId) {
        Bytes object;
        EXPECT_TRUE(orders_->get(orderId, object));
        EXPECT_EQ(objectText(object.data(), kNote), "note");
        return objectValue<uint64_t>(object.data(), propertyId);
    }
    std::vector<std::string> faults() {
        return IndexChecker(*tx_).requireLinkedObjects().faults();
    }

    std::unique_ptr<Transaction> tx_;
    std::unique_ptr<Cursor> customers_, orders_, products_;
};

TEST_F(ReferencesTest, RemovalTellsOfTheEntitiesThatReferred) {
    put(*customers_, 1);
    putOrder(10, 1);
    tx_->commit();
    TearDown();
    tx_ = write();
    EXPECT_TRUE(cursor(*tx_, kCustomers)->remove(1));
    std::vector<uint32_t> affected;
    tx_->commit(&affected);
    EXPECT_THAT(affected, UnorderedElementsAre(kCustomers, kOrders));
}

TEST_F(ReferencesTest, RemovalKeepsThePlaceThoughItRewritesItsOwnEntity) {
    for (const uint64_t id : {10, 11, 12}) putOrder(id, 0, 11);
    ASSERT_TRUE(orders_->seek(11));
    EXPECT_TRUE(orders_->removeCurrent());
    EXPECT_EQ(orders_->currentId(), 12u);
    EXPECT_EQ(reference(10, kFollows), 0u);
    EXPECT_EQ(reference(12, kFollows), 0u);
    ASSERT_TRUE(orders_->seek(12));
    putOrder(10, 0, 12);
    ASSERT_TRUE(orders_->seek(12));
    EXPECT_TRUE(orders_->removeCurrent());
    EXPECT_EQ(orders_->currentId(), ~uint64_t{0});  // behind the last
    EXPECT_THAT(faults(), IsEmpty());
}

TEST_F(ReferencesTest, RemovingAllInStepsEndsWithNothingLeft) {
    for (const uint64_t id : {10, 11}) putOrder(id, 1, 10);
    put(*products_, 20);
    orders_->relationCursor(kContains).put(10, 20);
    std::vector<uint64_t> steps;
    uint64_t changes = 0;
    do {
        changes = 0;
        orders_->removeAllBatch(changes, true);
        steps.push_back(changes);
    } while (changes != 0);
    EXPECT_THAT(steps, ElementsAre(2, 2, 2, 2, 2, 0));  // three indexes, one link twice, objects
    EXPECT_THAT(faults(), IsEmpty());
}

// Random puts and removals on all three entities; then everything derived is recomputed.
TEST_F(ReferencesTest, RandomOperationsLeaveNoOrphans) {
    std::mt19937 random(testSeed());
    const auto id = [&] { return 1 + random() % 12 + (random() % 5 == 0 ? kLongId : 0); };
    RelationCursor& contains = orders_->relationCursor(kContains);
    RelationCursor& friends = customers_->relationCursor(kFriends);
    const auto link = [&](RelationCursor& relation, Cursor& sources, Cursor& targets) {
        const uint64_t source = id();
        const uint64_t target = id();
        if (sources.seek(source) && targets.seek(target)) relation.put(source, target);
    };
    for (int i = 0; i < 4000; ++i) {
        const uint64_t one = id();
        if (random() % 100 == 0) {
            Cursor* const all[] = {customers_.get(), orders_.get(), products_.get()};
            all[random() % 3]->removeAll();
        }
        switch (random() % 9) {
            case 0: put(*customers_, one); break;
            case 1: put(*products_, one); break;
            case 2:
            case 3: putOrder(one, customers_->seek(one) ? one : 0, orders_->seekFirstId()); break;
            case 4: customers_->remove(one); break;
            case 5: orders_->remove(one); break;
            case 6: products_->remove(one); break;
            case 7: link(contains, *orders_, *products_); break;
            default: link(friends, *customers_, *customers_);
        }
        if (i % 200 != 0) continue;
        ASSERT_THAT(faults(), IsEmpty());
        Bytes order;
        for (bool on = orders_->first(order); on; on = orders_->next(order)) {
            const auto customer = objectValue<uint64_t>(order.data(), kCustomerId);
            const auto follows = objectValue<uint64_t>(order.data(), kFollows);
            Bytes ignored;
            EXPECT_TRUE(customer == 0 || customers_->get(customer, ignored));
            const uint64_t place = orders_->currentId();
            EXPECT_TRUE(follows == 0 || orders_->get(follows, ignored));
            ASSERT_TRUE(orders_->seek(place));
        }
    }
    for (Cursor* const all : {customers_.get(), orders_.get(), products_.get()}) all->removeAll();
    EXPECT_EQ(tx_->dataSizeChange(), 0);  // also the cleared references were counted right
}

}  // namespace
}  // namespace quillmere
