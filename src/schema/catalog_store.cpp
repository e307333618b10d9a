#include "schema/catalog_store.h"

#include "core/checks.h"
#include "core/error.h"
#include "core/log.h"
#include "kv/partition.h"
#include "schema/catalog_format.h"
#include "schema/entity.h"
#include "schema/entity_record.h"
#include "schema/schema.h"
#include "schema/schema_host.h"

namespace quillmere {

using namespace catalog_format;

std::optional<Catalog> CatalogStore::readCatalogOnly() {
    Bytes record;
    if (!host_.readElement(kCatalogElement, record)) return std::nullopt;
    return Catalog::parse(record);
}

std::shared_ptr<Schema> CatalogStore::readDefaultSchemaForStore(
    bool failIfMissing, std::optional<Catalog>& outCatalog) {
    outCatalog = readCatalogOnly();
    if (!outCatalog) {
        if (failIfMissing) throwIllegalState("No DB catalog present");
        return nullptr;
    }
    std::shared_ptr<Schema> schema = readDefaultSchemaWithEntities(*outCatalog);
    CHECK_STATE_AT(98, schema);
    return schema;
}

std::shared_ptr<Schema> CatalogStore::readDefaultSchemaWithEntities(const Catalog& catalog) {
    const std::shared_ptr<Schema>& schema = catalog.defaultSchema;
    CHECK_STATE_AT(105, schema);
    readEntitiesIntoSchema(catalog, *schema);
    return schema;
}

void CatalogStore::readEntitiesIntoSchema(const Catalog& catalog, Schema& schema) {
    if (schema.id() == 0) throwSchema("Schema has no ID");
    CHECK_STATE_AT(114, schema.entities().empty());
    host_.visitElements(1, [&](uint64_t elementId, const Bytes& record) {
        if (!isPartitionId(elementId)) {
            logLine("%s [WARN ] Found additional unknown schema elements, ignoring...\n",
                    logTimestamp());
            return false;
        }
        const EntityRecord entity = EntityRecord::verify(elementId, record, catalog);
        if (entity.schemaId() == schema.id()) schema.addEntity(entity.parse());
        return true;
    });
    schema.link();
}

CatalogStore::Elements CatalogStore::readAll() {
    Elements elements;
    Bytes record;
    if (host_.readElement(kCatalogElement, record)) {
        elements.emplace(kCatalogElement, Bytes::copyOf(record.data(), record.size()));
    }
    host_.visitElements(1, [&](uint64_t id, const Bytes& element) {
        CHECK_STATE_TEXT_AT(265, id > 0 && id < kElementLimit, "readAll",
                            "id > 0 && id < (1 << 25)");
        elements.emplace(id, Bytes::copyOf(element.data(), element.size()));
        return true;
    });
    return elements;
}

bool CatalogStore::isEmpty() {
    Bytes record;
    bool empty = !host_.readElement(kCatalogElement, record);
    host_.visitElements(1, [&](uint64_t, const Bytes&) { return empty = false; });
    return empty;
}

void CatalogStore::writeAll(const Elements& elements) {
    if (!isEmpty()) throwIllegalArgument("Schema partition must be empty");
    const auto first = elements.find(kCatalogElement);
    if (first == elements.end() || first->second.empty()) throwIllegalArgument("Empty catalog");
    const Catalog catalog = Catalog::parse(first->second);
    for (const auto& [id, record] : elements) {
        CHECK_STATE_TEXT_AT(283, id < kElementLimit, __func__, "id < (1 << 25)");
        if (record.size() % 4 != 0) throwIllegalArgument("Size not padded");
        if (isPartitionId(id)) EntityRecord::verify(id, record, catalog);
        host_.writeElement(id, record.data(), record.size());
    }
}

void CatalogStore::checkWritable() const {
    if (host_.readOnly()) {
        throwIllegalState("Can not update schema when opening in read-only mode");
    }
}

void CatalogStore::writeCatalog(const Catalog& catalog) {
    checkWritable();
    const Bytes record = catalog.build();
    host_.writeElement(kCatalogElement, record.data(), record.size());
}

void CatalogStore::writeEntity(const Entity& entity) {
    checkWritable();
    const Bytes record = buildEntityRecord(entity);
    host_.writeElement(entity.id(), record.data(), record.size());
}

void CatalogStore::removeEntity(const Entity& entity) {
    checkWritable();
    host_.removeAllObjects(entity);
    if (!host_.removeElement(entity.id())) throwSchema("Entity schema could not be removed");
}

}  // namespace quillmere
