#pragma once

// One node of a query's condition tree.

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace quillmere {

class Cursor;
class IndexCursor;
class ObjectTable;
class Property;
class QueryBuilder;

// What a condition does. The numbers show in no file, but in messages through their words.
enum class QueryOp : int32_t {
    Equal = 0,
    NotEqual = 1,
    IsNull = 2,
    IsNotNull = 3,
    Less = 4,
    LessOrEqual = 5,
    Greater = 6,
    GreaterOrEqual = 7,
    In = 8,
    Between = 9,
    StartsWith = 10,
    EndsWith = 11,
    Contains = 12,
    ContainsKeyValue = 13,
    AllOf = 14,
    AnyOf = 15,
    True = 16,
    Link = 17,
    RelationCount = 18,
    NearestNeighbors = 19,
};

// "==" and so on, "??" for an op without a word.
const char* queryOpWord(QueryOp op);
// For a family of conditions that has no such op.
[[noreturn]] void throwUnsupportedOp(QueryOp op);

// The kind of value that a condition takes as a parameter.
enum class ParamKind : uint32_t {
    None = 0,
    Number = 1,
    TwoNumbers = 2,
    IntegerSet = 3,
    String = 4,
    TwoStrings = 5,
    StringSet = 6,
    Bytes = 7,
    FloatVector = 8,
};

// What a condition may look at: the object at hand and the cursor that read it.
struct QueryContext {
    Cursor& cursor;
    const ObjectTable& table;
};

// Owned by the builder that made it, then by the query. A query is used by one thread at a time,
// and so are its conditions.
class QueryCondition {
public:
    virtual ~QueryCondition() = default;
    QueryCondition& operator=(const QueryCondition&) = delete;

    // Does this object match. Allocates nothing but where a class says so.
    virtual bool check(const QueryContext& context) const;
    virtual std::string describe(uint32_t indent) const;
    // A condition with the same values, for a clone of the query.
    virtual std::unique_ptr<QueryCondition> clone() const;

    QueryOp op() const { return op_; }
    bool withProperty() const { return withProperty_; }
    QueryBuilder* builder() const { return builder_; }
    // Set while the builder is at work; null afterwards.
    void setBuilder(QueryBuilder* builder) { builder_ = builder; }

protected:
    explicit QueryCondition(QueryOp op, bool withProperty = false)
        : op_(op), withProperty_(withProperty) {}
    QueryCondition(const QueryCondition&) = default;

private:
    QueryBuilder* builder_ = nullptr;
    const QueryOp op_;
    const bool withProperty_;
};

// A condition on a property. Setters of parameters throw unless the class takes such a value.
class QueryConditionWithProperty : public QueryCondition {
public:
    const Property& property() const { return *property_; }
    ParamKind paramKind() const { return paramKind_; }
    uint16_t fieldOffset() const { return fieldOffset_; }
    const std::string& alias() const { return alias_; }  // empty if none
    void setAlias(std::string alias) { alias_ = std::move(alias); }

    virtual bool isPropertyCondition() const { return true; }
    // It can produce IDs from the property's index.
    virtual bool canLookupIndex() const { return false; }
    // Appends candidate IDs in any order; false if it declines. Sets `notDefinite` if the objects
    // must be checked.
    virtual bool lookupIndex(IndexCursor& cursor, std::vector<uint64_t>& ids, bool& notDefinite);
    // It can produce IDs without an index.
    virtual bool canLookup() const { return false; }
    virtual bool lookup(Cursor& cursor, std::vector<uint64_t>& ids, bool& notDefinite);

    virtual void setNumber(int64_t value);
    virtual void setNumber(double value);
    virtual void setTwoNumbers(int64_t a, int64_t b);
    virtual void setTwoNumbers(double a, double b);
    virtual void setString(std::string_view value);
    virtual void setTwoStrings(std::string_view key, std::string_view value);
    virtual void setStrings(const std::vector<std::string_view>& values);
    virtual void setBytes(const void* data, size_t size);
    virtual void setIntegers(const std::vector<int32_t>& values);
    virtual void setIntegers(const std::vector<int64_t>& values);
    virtual void setFloatVector(std::span<const float> values);

protected:
    QueryConditionWithProperty(QueryOp op, const Property& property, ParamKind paramKind);
    QueryConditionWithProperty(const QueryConditionWithProperty&) = default;

private:
    const Property* property_;  // lives as long as the schema
    ParamKind paramKind_;
    uint16_t fieldOffset_;
    std::string alias_;
};

}  // namespace quillmere
