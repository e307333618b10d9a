#pragma once

// What reading and synchronising a schema asks of the store: the elements of the schema partition,
// the removal of data that a migration gives up and the filling of new indexes. Implemented by the
// object store on one transaction.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "core/bytes.h"

namespace quillmere {

class Entity;
class Index;
class Property;
class Relation;
class Schema;

// Used on the thread of its transaction. Views given out die at the next write.
class SchemaHost {
public:
    // Returns false to end the walk.
    using ElementVisitor = std::function<bool(uint64_t elementId, const Bytes& data)>;

    virtual ~SchemaHost() = default;

    virtual bool readOnly() const = 0;

    // Elements of the schema partition: 0 is the catalog record, n the record of entity n.
    virtual bool readElement(uint64_t elementId, Bytes& out) = 0;
    virtual void visitElements(uint64_t fromElementId, const ElementVisitor& visitor) = 0;
    // `size` must be a multiple of 4.
    virtual void writeElement(uint64_t elementId, const void* data, size_t size) = 0;
    virtual bool removeElement(uint64_t elementId) = 0;

    // The schema that cursors of the transaction see while data is removed. As they refer to its
    // entities, each schema given stays alive as long as the store.
    virtual std::shared_ptr<Schema> schema() const = 0;
    virtual void setSchema(std::shared_ptr<Schema> schema) = 0;

    virtual void removeAllObjects(const Entity& entity) = 0;
    virtual void removeIndexData(const Index& index) = 0;
    // Fills the empty index of a property from all objects. The entity must stand in schema().
    virtual void rebuildIndex(const Entity& entity, const Property& property) = 0;
    virtual void removeRelationData(const Relation& relation) = 0;
};

}  // namespace quillmere
