#pragma once

// The order of a query's results: a chain of comparators, one for each property ordered by.

#include <cstdint>
#include <memory>

namespace quillmere {

class ObjectTable;
class Property;

enum OrderFlags : uint32_t {
    kOrderDescending = 1,
    kOrderCaseSensitive = 2,
    kOrderUnsigned = 4,
    kOrderNullsLast = 8,
    kOrderNullsZero = 16,
    kOrderAllFlags = 31,
};

// Immutable; shared by a query and its clones. Not a strict weak order where floats are NaN: never
// hand it to a standard sort.
class Comparator {
public:
    virtual ~Comparator() = default;
    // Whether `a` must come before `b`.
    virtual bool before(const ObjectTable& a, const ObjectTable& b) const = 0;
};

// `next` decides ties and may be null. Throws for a type or flags that can not be ordered by.
std::shared_ptr<const Comparator> makeComparator(const Property& property, uint32_t flags,
                                                 std::shared_ptr<const Comparator> next);

}  // namespace quillmere
