#pragma once

#include <cstdint>

namespace quillmere {

class Transaction;

// Removes the objects whose expiration time has passed, of one entity, or with ID 0 of all entities
// that have such a property; gives their number. An object without a time, or with 0, stays. Throws
// SchemaException for an entity without an expiration time.
uint64_t removeExpiredObjects(Transaction& tx, uint32_t entityId);

}  // namespace quillmere
