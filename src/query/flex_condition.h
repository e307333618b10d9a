#pragma once

// Conditions on FlexBuffers data. REQUIRES, all of them: a property of type Flex.

#include <memory>
#include <string_view>

#include "query/condition.h"

namespace quillmere {

// Whether the root is this string, or an integer with this decimal text.
std::unique_ptr<QueryCondition> makeFlexEqualCondition(const Property& property,
                                                       std::string_view value, bool caseSensitive);
// Whether a root map has this key, or an element of a root vector equals the string.
std::unique_ptr<QueryCondition> makeFlexContainsCondition(const Property& property,
                                                          std::string_view value,
                                                          bool caseSensitive);
// Whether a root map has the key with this value.
std::unique_ptr<QueryCondition> makeFlexKeyValueCondition(const Property& property,
                                                          std::string_view key,
                                                          std::string_view value,
                                                          bool caseSensitive);

}  // namespace quillmere
