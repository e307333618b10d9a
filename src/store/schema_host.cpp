#include "store/schema_host.h"

#include <utility>

#include "core/checks.h"
#include "kv/partition.h"
#include "kv/partition_cursor.h"
#include "schema/index.h"
#include "schema/property.h"
#include "schema/relation.h"
#include "schema/schema.h"
#include "store/cursor.h"
#include "store/index_cursor.h"
#include "store/index_cursor_set.h"
#include "store/object_store.h"
#include "store/object_table.h"
#include "store/transaction.h"

namespace quillmere {

StoreSchemaHost::StoreSchemaHost(Transaction& tx)
    : tx_(tx), store_(tx.store()), cursor_(makeCursor()) {}

StoreSchemaHost::~StoreSchemaHost() = default;

std::unique_ptr<Cursor> StoreSchemaHost::makeCursor() const {
    Cursor::Config config;
    config.prefix = kSchemaPrefix;
    config.registered = false;
    config.allowAnyId = true;  // the catalog record is element 0
    return std::make_unique<Cursor>(tx_, config);
}

bool StoreSchemaHost::readOnly() const {
    return store_.readOnly();
}

bool StoreSchemaHost::readElement(uint64_t elementId, Bytes& out) {
    return cursor_->get(elementId, out);
}

// On a cursor of its own, as the visitor may read elements meanwhile. By position, never by ID:
// an ID of 0 looks like a place before the first element.
void StoreSchemaHost::visitElements(uint64_t fromElementId, const ElementVisitor& visitor) {
    const std::unique_ptr<Cursor> walk = makeCursor();
    Bytes data;
    bool found = walk->seekOrNext(fromElementId) && walk->current(data);
    while (found && visitor(walk->currentId(), data)) found = walk->next(data);
}

void StoreSchemaHost::writeElement(uint64_t elementId, const void* data, size_t size) {
    cursor_->put(elementId, data, size, kPut);
}

bool StoreSchemaHost::removeElement(uint64_t elementId) {
    return cursor_->remove(elementId);
}

std::shared_ptr<Schema> StoreSchemaHost::schema() const {
    return store_.schema();
}

void StoreSchemaHost::setSchema(std::shared_ptr<Schema> schema) {
    store_.setSchema(std::move(schema));
}

void StoreSchemaHost::removeAllObjects(const Entity& entity) {
    tx_.createCursor(&entity)->removeAll();
}

void StoreSchemaHost::removeIndexData(const Index& index) {
    const uint32_t prefix = partitionPrefix(PartitionType::Index, index.id());
    removeRange(prefix, prefix);
}

void StoreSchemaHost::rebuildIndex(const Entity& entity, const Property& property) {
    const std::unique_ptr<Cursor> objects = tx_.createCursor(&entity);
    IndexCursorSet* const indexCursorSet = objects->indexCursorSet();
    CHECK_STATE_AT(213, indexCursorSet);
    IndexCursor* const indexCursor = indexCursorSet->findIndexCursor(property.id());
    CHECK_STATE_AT(230, indexCursor);
    Bytes object;
    for (bool found = objects->first(object); found; found = objects->next(object)) {
        const ObjectTable table(object.data(), object.size());
        indexCursor->updateEntry(objects->placeId(), table, nullptr);
    }
}

void StoreSchemaHost::removeRelationData(const Relation& relation) {
    // Both directions, each with short and long IDs.
    removeRange(partitionPrefix(PartitionType::Relation, relation.id(), 0),
                partitionPrefix(PartitionType::Relation, relation.id(), 3));
}

void StoreSchemaHost::removeRange(uint32_t firstPrefix, uint32_t lastPrefix) {
    PartitionCursor::Config config;
    config.firstPrefix = firstPrefix;
    config.lastPrefix = lastPrefix;
    PartitionCursor(tx_, config).removeAll();
}

}  // namespace quillmere
