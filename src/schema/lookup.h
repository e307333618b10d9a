#pragma once

// The hash maps of schemas and entities: from a name, ID or UID to an element that is owned
// elsewhere.

#include <functional>
#include <unordered_map>

#include "core/hash.h"

namespace quillmere {

template <class Key, class Value>
using Lookup = std::unordered_map<Key, Value*, FnvHash<Key>, std::equal_to<>>;

template <class Key, class Value, class Wanted>
Value* findOrNull(const Lookup<Key, Value>& lookup, const Wanted& key) {
    const auto found = lookup.find(key);
    return found == lookup.end() ? nullptr : found->second;
}

}  // namespace quillmere
