#pragma once

#include <memory>

#include "query/condition.h"

namespace quillmere {

// "is null" or "is not null", for a property of any type.
std::unique_ptr<QueryCondition> makeNullCondition(const Property& property, QueryOp op);

}  // namespace quillmere
