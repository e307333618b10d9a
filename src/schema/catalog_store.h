#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>

#include "core/bytes.h"
#include "schema/catalog.h"

namespace quillmere {

class Entity;
class Schema;
class SchemaHost;

// Reads and writes the schema partition of a store. Lives on one transaction, through its host, and
// on that transaction's thread; what it gives out is independent of both. Damaged records throw
// DbFileCorruptException, writes in a read-only store IllegalStateException.
class CatalogStore {
public:
    // By element ID; element 0 is the catalog, n the entity with ID n.
    using Elements = std::map<uint64_t, Bytes>;

    explicit CatalogStore(SchemaHost& host) : host_(host) {}

    // Without entities. Empty if the store has no catalog.
    std::optional<Catalog> readCatalogOnly();
    // The linked default schema and the catalog. A missing catalog gives null and empty or, with
    // `failIfMissing`, throws IllegalStateException.
    std::shared_ptr<Schema> readDefaultSchemaForStore(bool failIfMissing,
                                                      std::optional<Catalog>& outCatalog);
    // Fills the catalog's default schema, and gives it.
    std::shared_ptr<Schema> readDefaultSchemaWithEntities(const Catalog& catalog);
    // Adds the stored entities to a schema that has none yet, and links it.
    void readEntitiesIntoSchema(const Catalog& catalog, Schema& schema);

    // Copies of all elements, and the way back into an empty schema partition.
    Elements readAll();
    void writeAll(const Elements& elements);

    // Throws in a read-only store.
    void checkWritable() const;
    // The caller has set the update time.
    void writeCatalog(const Catalog& catalog);
    void writeEntity(const Entity& entity);
    // Removes the objects of the entity and its record.
    void removeEntity(const Entity& entity);

private:
    bool isEmpty();

    SchemaHost& host_;
};

}  // namespace quillmere
