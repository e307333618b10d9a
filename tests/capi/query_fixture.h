#pragma once

// A store with customers, their orders and products, and short names for what tests of queries do.

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "capi/store_fixture.h"

namespace quillmere {

constexpr uint32_t kCustomer = 1;
constexpr uint32_t kName = 2;    // String
constexpr uint32_t kAge = 3;     // Int
constexpr uint32_t kPoints = 4;  // Long, null for Cid
constexpr uint32_t kWeight = 5;  // Double
constexpr uint32_t kData = 6;    // ByteVector
constexpr uint32_t kExtra = 7;   // Flex
constexpr uint32_t kTier = 8;    // Byte, null for Cid, as the next two
constexpr uint32_t kVisits = 9;  // Short
constexpr uint32_t kRating = 10; // Float
constexpr uint32_t kFavourites = 1;  // relation of customers to products
constexpr uint32_t kOrder = 2;
constexpr uint32_t kCustomerId = 2;  // to-one relation of an order
constexpr uint32_t kTotal = 3;       // Double, of an order
constexpr uint32_t kNumber = 4;      // Long, of an order: unique, and null in all of these
constexpr uint32_t kProduct = 3;

class QueryTest : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        openShop();
        putCustomer(1, {{kName, "Ann"}, {kAge, 30}, {kPoints, int64_t{7}}, {kWeight, 60.5},
                        {kTier, int8_t{1}}, {kVisits, int16_t{300}}, {kRating, 0.5f}});
        putCustomer(2, {{kName, "bob"}, {kAge, 40}, {kPoints, int64_t{9}}, {kWeight, 80.25},
                        {kTier, int8_t{-2}}, {kVisits, int16_t{-1}}, {kRating, -1.5f}});
        putCustomer(3, {{kName, "Cid"}, {kAge, 50}, {kWeight, 70.0}, {kData, "\x01\x02"}});
        putCustomer(4, {{kName, "ann"}, {kAge, 20}, {kPoints, int64_t{7}}, {kWeight, 50.0},
                        {kTier, int8_t{1}}, {kVisits, int16_t{300}}, {kRating, 0.5f}});
        for (const auto& [order, customer] : {std::pair{10, 1}, {11, 1}, {12, 2}}) {
            put(kOrder, order,
                makeObject({{1, uint64_t(order)}, {kCustomerId, uint64_t(customer)},
                            {kTotal, order * 1.5}}));
        }
        put(kProduct, 20, makeObject({{1, uint64_t{20}}}));
        ASSERT_EQ(QMR_SUCCESS, qmr_kist_rel_put(kist(kCustomer), kFavourites, 3, 20));
    }

    void openShop() {
        QMR_store_options* opt = options(false);
        qmr_opt_model(opt, TestModel()
                               .entity("Customer", kCustomer)
                               .idProperty(QMRPropertyFlags_ID_SELF_ASSIGNABLE)
                               .property("name", QMRPropertyType_String, kName)
                               .property("age", QMRPropertyType_Int, kAge)
                               .property("points", QMRPropertyType_Long, kPoints)
                               .property("weight", QMRPropertyType_Double, kWeight)
                               .property("data", QMRPropertyType_ByteVector, kData)
                               .property("extra", QMRPropertyType_Flex, kExtra)
                               .property("tier", QMRPropertyType_Byte, kTier)
                               .property("visits", QMRPropertyType_Short, kVisits)
                               .property("rating", QMRPropertyType_Float, kRating)
                               .relation(kFavourites, kProduct)
                               .entity("Order", kOrder)
                               .idProperty(QMRPropertyFlags_ID_SELF_ASSIGNABLE)
                               .toOne("customerId", "Customer", kCustomerId, 1)
                               .property("total", QMRPropertyType_Double, kTotal)
                               .indexed("number", QMRPropertyType_Long, kNumber, 2,
                                        QMRPropertyFlags_UNIQUE)
                               .entity("Product", kProduct)
                               .idProperty(QMRPropertyFlags_ID_SELF_ASSIGNABLE)
                               .release());
        store_.reset(qmr_store_open(opt));
        ASSERT_TRUE(store_) << qmr_last_error_message();
    }

    QMR_kist* kist(uint32_t entityId) { return qmr_kist(store_.get(), entityId); }
    void put(uint32_t entityId, uint64_t id, const ObjectBytes& object) {
        ASSERT_EQ(QMR_SUCCESS, qmr_kist_put(kist(entityId), id, object.data(), object.size()));
    }
    void putCustomer(uint64_t id, std::vector<ObjectField> fields) {
        fields.emplace_back().propertyId = 1;
        fields.back().value = id;
        put(kCustomer, id, makeObjectFrom(fields));
    }

    BuilderPtr builder(uint32_t entityId = kCustomer) {
        return BuilderPtr(qmr_query_builder(store_.get(), entityId));
    }
    // With ages from `low` on.
    QueryPtr customersFrom(int64_t low) {
        const BuilderPtr b = builder();
        qmr_qb_greater_or_equal_int(b.get(), kAge, low);
        return build(b);
    }
    static QueryPtr build(const BuilderPtr& builder) {
        QueryPtr query(qmr_query(builder.get()));
        EXPECT_TRUE(query) << qmr_last_error_message();
        return query;
    }
    // A null array is told by a list of one 0.
    static std::vector<uint64_t> idsOf(QMR_id_array* array) {
        const IdArrayPtr owned(array);
        if (!array) return {0};
        return {array->ids, array->ids + array->count};
    }
    static std::vector<uint64_t> ids(const QueryPtr& query) {
        return idsOf(qmr_query_find_ids(query.get()));
    }
    static std::vector<uint64_t> ids(const BuilderPtr& builder) { return ids(build(builder)); }
};

}  // namespace quillmere
