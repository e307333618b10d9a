#pragma once

// Arrays as callers pass them.

#include <cstddef>
#include <string_view>
#include <vector>

#include "core/checks.h"

namespace quillmere {

// REQUIRES for both: `values` is not null. A count that no array can have is refused before any
// value is looked at.
template <class Value>
std::vector<Value> copyValues(const Value values[], size_t count) {
    std::vector<Value> copy;
    copy.reserve(count);
    copy.assign(values, values + count);
    return copy;
}

// Throws for a null element.
inline std::vector<std::string_view> viewStrings(const char* const values[], size_t count) {
    std::vector<std::string_view> views;
    views.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        CHECK_ARG_NOT_NULL(values[i]);
        views.emplace_back(values[i]);
    }
    return views;
}

}  // namespace quillmere
