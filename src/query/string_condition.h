#pragma once

// Conditions on one string, for strings and for byte vectors that hold text.

#include <memory>
#include <string>
#include <string_view>

#include "query/condition.h"

namespace quillmere {

class QueryConditionString : public QueryConditionWithProperty {
public:
    std::string describe(uint32_t indent) const override;
    void setString(std::string_view value) override { value_ = value; }

protected:
    QueryConditionString(QueryOp op, const Property& property, std::string_view value,
                         bool caseSensitive, ParamKind paramKind = ParamKind::String)
        : QueryConditionWithProperty(op, property, paramKind), value_(value),
          caseSensitive_(caseSensitive) {}

    const std::string& value() const { return value_; }
    bool caseSensitive() const { return caseSensitive_; }

private:
    std::string value_;
    const bool caseSensitive_;
};

// "==", "!=", an order op, "starts with", "ends with" or "contains". REQUIRES: a property of type
// String or ByteVector.
std::unique_ptr<QueryCondition> makeStringCondition(const Property& property, QueryOp op,
                                                    std::string_view value, bool caseSensitive);
// Whether one element is the string. REQUIRES: a property of type StringVector.
std::unique_ptr<QueryCondition> makeStringVectorCondition(const Property& property,
                                                          std::string_view value,
                                                          bool caseSensitive);

}  // namespace quillmere
