#pragma once

// The record of one entity in the schema partition.

#include <cstdint>
#include <memory>

#include "core/bytes.h"

namespace quillmere {

class Catalog;
class Entity;

// Throws SchemaException if the entity or a property lacks what a stored one must have.
Bytes buildEntityRecord(const Entity& entity);

// A record that has been found valid, on a view of the stored bytes or a copy of them.
class EntityRecord {
public:
    // The bytes may be any. Throws DbFileCorruptException unless they are a valid record of the
    // entity `key` in the given catalog.
    static EntityRecord verify(uint64_t key, const Bytes& record, const Catalog& catalog);

    // The schema that the entity belongs to.
    uint32_t schemaId() const;
    // The finished entity. Throws SchemaException, DbFileCorruptException and what the setters of
    // its parts throw.
    std::shared_ptr<Entity> parse() const;

private:
    explicit EntityRecord(const Bytes& record);

    Bytes aligned_;
};

}  // namespace quillmere
