#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "query/condition.h"

namespace quillmere {

// Whether a string, or text in a byte vector, is one of these. REQUIRES: a property of type String
// or ByteVector.
std::unique_ptr<QueryCondition> makeStringSetCondition(const Property& property,
                                                       const std::vector<std::string_view>& values,
                                                       bool caseSensitive);

}  // namespace quillmere
