#include "store/expired_objects.h"

#include <chrono>
#include <memory>

#include "query/query.h"
#include "query/query_builder.h"
#include "schema/schema.h"
#include "store/cursor.h"
#include "store/object_store.h"
#include "store/transaction.h"

namespace quillmere {
namespace {

// In the unit of the property.
int64_t now(const Property& expirationTime) {
    using namespace std::chrono;
    const auto time = system_clock::now().time_since_epoch();
    return expirationTime.type() == PropertyType::DateNano
               ? duration_cast<nanoseconds>(time).count()
               : duration_cast<milliseconds>(time).count();
}

uint64_t removeExpiredOf(const Entity& entity, const std::shared_ptr<Schema>& schema,
                         Transaction& tx) {
    const Property& expirationTime = entity.expirationTimeProperty();
    QueryBuilder builder(entity, schema, true, tx.store().debugFlags());
    builder.less(expirationTime, now(expirationTime), false);
    builder.notEqual(expirationTime, int64_t{0});
    const std::unique_ptr<Query> query = builder.build();
    return query->remove(*tx.createCursor(&entity));
}

}  // namespace

uint64_t removeExpiredObjects(Transaction& tx, uint32_t entityId) {
    const std::shared_ptr<Schema> schema = tx.store().requireSchema();
    if (entityId != 0) return removeExpiredOf(schema->entityById(entityId), schema, tx);
    uint64_t removed = 0;
    for (const auto& entity : schema->entities()) {
        if (entity->expirationTime()) removed += removeExpiredOf(*entity, schema, tx);
    }
    return removed;
}

}  // namespace quillmere
