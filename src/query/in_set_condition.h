#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "query/condition.h"

namespace quillmere {

// "in", or with `negate` "not in", which null matches. By the bits of the values. REQUIRES: a
// property of this width.
std::unique_ptr<QueryCondition> makeInSetCondition(const Property& property,
                                                   const std::vector<int32_t>& values, bool negate);
std::unique_ptr<QueryCondition> makeInSetCondition(const Property& property,
                                                   const std::vector<int64_t>& values, bool negate);

}  // namespace quillmere
