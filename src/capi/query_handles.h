#pragma once

// The records behind the handles of queries and property queries. Each lives on the heap and
// belongs to the caller.

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "capi/handles.h"
#include "core/bytes.h"
#include "core/error.h"
#include "query/property_query.h"
#include "query/query.h"
#include "quillmere/quillmere.h"
#include "store/object_store.h"
#include "store/store_activity.h"

namespace quillmere {

// The store of a handle that does not keep it open: closing a store waits for running queries, and
// must not be put off by handles that are merely there. Whoever uses the store, or the schema,
// which goes with it, counts as a running query for that time, from before get() on: a store that
// starts to close sees the user, or get() fails.
class StoreRef {
public:
    explicit StoreRef(const QMR_store& record)
        : store_(record.store), shared_(record.shared),
          activity_(record.store->sharedActivity()), borrowed_(!record.shared) {}

    StoreActivity& activity() const { return *activity_; }
    // Throws StoreClosedException once the last owner of the store has gone.
    ObjectStore& get() const {
        if (!borrowed_ && shared_.expired()) {
            throwWith<StoreClosedException>("Store is already closed");
        }
        return *store_;
    }

private:
    ObjectStore* store_;
    std::weak_ptr<ObjectStore> shared_;
    std::shared_ptr<StoreActivity> activity_;
    bool borrowed_;
};

// The store and the schema of a query, to be used for as long as this lives.
class QueryStore {
public:
    // Throws if the entity or the store has gone.
    QueryStore(const Query& query, const StoreRef& store)
        : running_(store.activity()), store_(usable(query, store)) {}

    ObjectStore& get() const { return store_; }

private:
    static ObjectStore& usable(const Query& query, const StoreRef& store) {
        query.checkUsable();
        return store.get();
    }

    RunningQuery running_;
    ObjectStore& store_;
};

}  // namespace quillmere

struct QMR_query {
    QMR_query(std::unique_ptr<quillmere::Query> query, quillmere::StoreRef store)
        : query(std::move(query)), store(std::move(store)) {}

    std::shared_ptr<quillmere::Query> query;  // shared with its property queries
    quillmere::StoreRef store;
    std::string description;  // what was handed out last, as the parameters
    std::string parameters;
    uint64_t offset = 0;
    uint64_t limit = 0;
    quillmere::Bytes object;  // the copy handed out last
};

struct QMR_query_prop {
    QMR_query_prop(const QMR_query& of, const quillmere::Property& property)
        : query(of.query), store(of.store), values(*query, property) {}

    std::shared_ptr<quillmere::Query> query;
    quillmere::StoreRef store;
    quillmere::PropertyQuery values;
    bool distinct = false;
    bool caseSensitive = true;
};
