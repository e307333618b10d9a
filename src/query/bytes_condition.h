#pragma once

#include <cstddef>
#include <memory>

#include "query/condition.h"

namespace quillmere {

// "==" or an order op. The bytes are copied. REQUIRES: a property of type ByteVector.
std::unique_ptr<QueryCondition> makeBytesCondition(const Property& property, QueryOp op,
                                                   const void* data, size_t size);

}  // namespace quillmere
