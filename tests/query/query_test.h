#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "query/property_query.h"
#include "query/query.h"
#include "query/query_builder.h"
#include "store/index_test.h"
#include "support/log_capture.h"

namespace quillmere {

using Ids = std::vector<uint64_t>;

// A store and short ways to queries on it. Entity 1 is the one that queries are on unless told.
class QueryTest : public IndexTest {
protected:
    // Puts gather in one transaction, which the next read commits.
    void put(uint64_t id, std::vector<ObjectField> fields = {}, uint32_t entityId = 1) {
        IndexTest::put(cursorFor(TxMode::Write, entityId), id, std::move(fields));
    }
    void putBytes(uint64_t id, const ObjectBytes& object) {
        cursorFor(TxMode::Write, 1).put(id, object.data(), object.size(), kPut);
    }
    Cursor& objects(uint32_t entityId = 1) { return cursorFor(TxMode::Read, entityId); }
    void endTx() {
        cursors_.clear();
        if (tx_ && !tx_->readOnly()) tx_->commit();
        tx_.reset();
    }
    void TearDown() override { endTx(); }

    const Property& prop(uint32_t id, uint32_t entityId = 1) { return property(entityId, id); }
    QueryBuilder builder(uint32_t entityId = 1, uint32_t debugFlags = 0) {
        return QueryBuilder(entity(entityId), store_->requireSchema(), true, debugFlags);
    }
    // With the conditions and orders that `add` makes.
    template <class Add>
    std::unique_ptr<Query> query(Add&& add, uint32_t debugFlags = 0) {
        QueryBuilder queryBuilder = builder(1, debugFlags);
        add(queryBuilder);
        return queryBuilder.build();
    }
    std::unique_ptr<Query> all() {
        return query([](QueryBuilder&) {});
    }
    Ids idsOf(Query& query, uint64_t offset = 0, uint64_t limit = 0) {
        Ids ids;
        query.findIds(objects(query.entity().id()), ids, offset, limit);
        return ids;
    }
    Ids orderedBy(uint32_t propertyId, uint32_t flags = 0, uint64_t offset = 0,
                  uint64_t limit = 0) {
        const auto ordered =
            query([&](QueryBuilder& b) { b.order(prop(propertyId), flags); });
        return idsOf(*ordered, offset, limit);
    }

private:
    Cursor& cursorFor(TxMode mode, uint32_t entityId) {
        if (tx_ && tx_->readOnly() != (mode == TxMode::Read)) endTx();
        if (!tx_) tx_ = store_->beginTx(mode);
        auto& cursor = cursors_[entityId];
        if (!cursor) cursor = IndexTest::cursor(*tx_, entityId);
        return *cursor;
    }

    std::unique_ptr<Transaction> tx_;
    std::map<uint32_t, std::unique_ptr<Cursor>> cursors_;
};

}  // namespace quillmere
