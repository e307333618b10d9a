#pragma once

// Conditions on numbers: of scalars, on one element at least of vectors, and of ranges.

#include <cstdint>
#include <memory>

#include "query/condition.h"

namespace quillmere {

// "==", "!=" or an order op. Throws for a property that is neither an integer nor a vector of them,
// and NumericOverflowException for a value that it can not have.
std::unique_ptr<QueryCondition> makeScalarCondition(const Property& property, QueryOp op,
                                                    int64_t value);
// The same for floats and vectors of them. No builder asks for their "==" or "!=", which compare
// bits.
std::unique_ptr<QueryCondition> makeScalarCondition(const Property& property, QueryOp op,
                                                    double value);
// The bounds may come in either order and are both included. REQUIRES: an integer or float scalar.
std::unique_ptr<QueryCondition> makeBetweenCondition(const Property& property, int64_t a,
                                                     int64_t b);
std::unique_ptr<QueryCondition> makeBetweenCondition(const Property& property, double a, double b);

}  // namespace quillmere
