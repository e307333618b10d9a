#pragma once

// The store's side of reading and synchronising a schema.

#include <cstdint>
#include <memory>

#include "schema/schema_host.h"

namespace quillmere {

class Cursor;
class ObjectStore;
class Transaction;

// On one transaction, which must outlive it. Used on the transaction's thread.
class StoreSchemaHost : public SchemaHost {
public:
    explicit StoreSchemaHost(Transaction& tx);
    ~StoreSchemaHost() override;

    bool readOnly() const override;
    bool readElement(uint64_t elementId, Bytes& out) override;
    void visitElements(uint64_t fromElementId, const ElementVisitor& visitor) override;
    void writeElement(uint64_t elementId, const void* data, size_t size) override;
    bool removeElement(uint64_t elementId) override;
    std::shared_ptr<Schema> schema() const override;
    void setSchema(std::shared_ptr<Schema> schema) override;
    void removeAllObjects(const Entity& entity) override;
    void removeIndexData(const Index& index) override;
    void rebuildIndex(const Entity& entity, const Property& property) override;
    void removeRelationData(const Relation& relation) override;

private:
    std::unique_ptr<Cursor> makeCursor() const;
    void removeRange(uint32_t firstPrefix, uint32_t lastPrefix);

    Transaction& tx_;
    ObjectStore& store_;
    std::unique_ptr<Cursor> cursor_;  // over the schema partition
};

}  // namespace quillmere
