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

namespace quillmere {

// The store of a handle that does not keep it open: closing a store waits for running queries, and
// must not be put off by handles that are merely there.
class StoreRef {
public:
    explicit StoreRef(const QMR_store& record)
        : store_(record.store), shared_(record.shared), borrowed_(!record.shared) {}

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
    bool borrowed_;
};

// To be asked before anything that looks into the schema, which goes with the store.
inline ObjectStore& usableStore(const Query& query, const StoreRef& store) {
    query.checkUsable();
    return store.get();
}

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
