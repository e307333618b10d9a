#include "capi/handles.h"
#include "capi/query_fixture.h"
#include "support/expected_leak.h"

namespace quillmere {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class RelationTest : public QueryTest {
protected:
    qmr_err putOrder(uint64_t id, int64_t number) {
        const ObjectBytes object = makeObject({{1, id}, {kNumber, number}});
        return qmr_kist_put(kist(kOrder), id, object.data(), object.size());
    }
};

TEST_F(RelationTest, BacklinksOfAToOneRelation) {
    EXPECT_THAT(idsOf(qmr_kist_get_backlink_ids(kist(kOrder), kCustomerId, 1)),
                ElementsAre(10, 11));
    EXPECT_THAT(idsOf(qmr_kist_get_backlink_ids(kist(kOrder), kCustomerId, 4)), IsEmpty());
    const TxnPtr txn = read();
    for (const uint32_t entityId : {kCustomer, kOrder}) {  // either side may ask
        const CursorPtr cursor(qmr_cursor(txn.get(), entityId));
        EXPECT_THAT(idsOf(qmr_cursor_backlink_ids(cursor.get(), kOrder, kCustomerId, 1)),
                    ElementsAre(10, 11));
        const BytesArrayPtr orders(qmr_cursor_backlinks(cursor.get(), kOrder, kCustomerId, 1));
        ASSERT_EQ(2u, orders->count);
        EXPECT_EQ(16.5, objectValue<double>(orders->bytes[1].data, kTotal));
        EXPECT_EQ(nullptr, qmr_cursor_backlinks(cursor.get(), kOrder, kTotal, 1));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, "\"isRelation\" not met"));
        EXPECT_EQ(nullptr, qmr_cursor_backlink_ids(cursor.get(), kOrder, 99, 1));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_SCHEMA, "Property ID 99 not found"));
        EXPECT_EQ(nullptr, qmr_cursor_backlink_ids(cursor.get(), kOrder, kCustomerId, 0));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, "Illegal ID value: 0"));
    }
    QMR_cursor coreless{};
    EXPECT_EQ(nullptr, qmr_cursor_backlink_ids(&coreless, kOrder, kCustomerId, 1));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE,
                            "State condition failed in getProperty:232: cursor->cursor"));
}

TEST_F(RelationTest, LinksOfAKist) {
    QMR_kist* const customers = kist(kCustomer);
    QMR_kist* const products = kist(kProduct);
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_rel_put(customers, kFavourites, 3, 21));
    EXPECT_THAT(idsOf(qmr_kist_rel_get_ids(customers, kFavourites, 3)), ElementsAre(20, 21));
    EXPECT_THAT(idsOf(qmr_kist_rel_get_backlink_ids(products, kFavourites, 20)), ElementsAre(3));
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_rel_remove(customers, kFavourites, 3, 21));
    EXPECT_EQ(QMR_NOT_FOUND, qmr_kist_rel_remove(customers, kFavourites, 3, 21));
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_remove(products, 20));
    EXPECT_THAT(idsOf(qmr_kist_rel_get_ids(customers, kFavourites, 3)), IsEmpty());

    const auto expectRefused = [](QMR_id_array* array, const char* text) {
        EXPECT_EQ(nullptr, array);
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, text));
    };
    expectRefused(
        qmr_kist_rel_get_ids(products, kFavourites, 5),
        "Wrong relation direction (source vs. target) for the given relation with ID 1 and this "
        "kist type (Product). Solutions: 1) if you expect results for this kist, use the other "
        "relation direction; 2) or, use the kist of the other relation type.");
    expectRefused(qmr_kist_rel_get_backlink_ids(customers, kFavourites, 1),
                  "Wrong relation direction");
    expectRefused(qmr_kist_rel_get_ids(kist(kOrder), kFavourites, 1),
                  "The given relation with ID 1 does not include this kist type (Order)");
    EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, qmr_kist_rel_put(products, kFavourites, 1, 5));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "No relation for relation ID 1 in Product"));
    EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, qmr_kist_rel_put(customers, kFavourites, 0, 5));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, "Illegal entity ID: 0"));
}

TEST_F(RelationTest, LinksOfACursorBelongToItsTransaction) {
    {
        const TxnPtr txn = write();
        const CursorPtr cursor(qmr_cursor(txn.get(), kCustomer));
        EXPECT_EQ(QMR_SUCCESS, qmr_cursor_rel_put(cursor.get(), kFavourites, 1, 5));
        EXPECT_EQ(QMR_SUCCESS, qmr_cursor_rel_put(cursor.get(), kFavourites, 1, 6));
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(QMR_SUCCESS, qmr_cursor_rel_remove(cursor.get(), kFavourites, 1, 6));
        }
        EXPECT_THAT(idsOf(qmr_cursor_rel_ids(cursor.get(), kFavourites, 1)), ElementsAre(5));
        EXPECT_EQ(nullptr, qmr_cursor_rel_ids(cursor.get(), 9, 1));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "No relation for relation ID 9"));
    }
    EXPECT_THAT(idsOf(qmr_kist_rel_get_ids(kist(kCustomer), kFavourites, 1)), IsEmpty());
}

// Index and relation cursors have positions of their own in the storage that is gone.
TEST_F(RelationTest, NoCursorIsUsedAfterTheStoreGaveUpWaitingForIt) {
    TxnPtr txn;
    CursorPtr customers;
    CursorPtr orders;
    {
        const ExpectedLeak engineTransaction;
        txn = read();
        customers.reset(qmr_cursor(txn.get(), kCustomer));
        orders.reset(qmr_cursor(txn.get(), kOrder));
        EXPECT_THAT(idsOf(qmr_cursor_rel_ids(customers.get(), kFavourites, 3)), ElementsAre(20));
        EXPECT_THAT(idsOf(qmr_cursor_backlink_ids(orders.get(), kOrder, kCustomerId, 1)),
                    ElementsAre(10, 11));
    }
    close();
    const ObjectBytes order = makeObject({{1, uint64_t{11}}, {kNumber, int64_t{78}}});
    EXPECT_EQ(nullptr, qmr_cursor_rel_ids(customers.get(), kFavourites, 1));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_SHUTTING_DOWN, "Store is already closed"));
    EXPECT_EQ(QMR_ERROR_SHUTTING_DOWN, qmr_cursor_rel_put(customers.get(), kFavourites, 1, 6));
    EXPECT_EQ(nullptr, qmr_cursor_backlinks(customers.get(), kOrder, kCustomerId, 1));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_SHUTTING_DOWN, "Store is already closed"));
    EXPECT_EQ(QMR_ERROR_SHUTTING_DOWN,
              qmr_cursor_put_new(orders.get(), 11, order.data(), order.size()));
    EXPECT_EQ(QMR_ERROR_SHUTTING_DOWN, qmr_cursor_remove_all(orders.get()));
    EXPECT_EQ(QMR_ERROR_SHUTTING_DOWN, qmr_expired_objects_remove(txn.get(), 0, nullptr));
}

TEST_F(RelationTest, AUniqueViolationHasItsCodeAndChangesNothing) {
    ASSERT_EQ(QMR_SUCCESS, putOrder(13, 77));
    EXPECT_EQ(QMR_ERROR_UNIQUE_VIOLATED, putOrder(14, 77));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_UNIQUE_VIOLATED,
                            "Unique constraint for Order.number would be violated by putting "
                            "object with ID 14 because same property value already exists in "
                            "object with ID 13"));
    bool contains = true;
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_contains(kist(kOrder), 14, &contains));
    EXPECT_FALSE(contains);
}

}  // namespace
}  // namespace quillmere
