#pragma once

#include <cstdint>
#include <memory>

#include "query/condition.h"

namespace quillmere {

class Entity;

// Whether exactly `count` objects refer to the one at hand through `relation`, a property of their
// entity. Throws unless it is a relation to `entity`.
std::unique_ptr<QueryCondition> makeRelationCountCondition(const Entity& entity,
                                                           const Property& relation, int32_t count);

}  // namespace quillmere
