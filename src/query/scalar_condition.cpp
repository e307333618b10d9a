#include "query/scalar_condition.h"

#include <algorithm>
#include <bit>
#include <functional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include "core/error.h"
#include "query/number_value.h"
#include "store/index_cursor.h"
#include "store/object_table.h"

namespace quillmere {
namespace {

struct EqualBits {
    template <class T>
    bool operator()(T a, T b) const {
        return std::bit_cast<BitsOf<T>>(a) == std::bit_cast<BitsOf<T>>(b);
    }
};
struct UnequalBits {
    template <class T>
    bool operator()(T a, T b) const {
        return !EqualBits()(a, b);
    }
};

// What a condition on one number shares, be it on a scalar or on a vector.
template <class T>
class NumberCondition : public QueryConditionWithProperty {
public:
    template <class Number>
    NumberCondition(QueryOp op, const Property& property, Number value)
        : QueryConditionWithProperty(op, property, ParamKind::Number),
          value_(toPropertyValue<T>(property, value)) {}

    std::string describe(uint32_t) const override {
        return property().name() + ' ' + queryOpWord(op()) + ' ' + std::to_string(value_);
    }
    void setNumber(int64_t value) override { value_ = toPropertyValue<T>(property(), value); }
    void setNumber(double value) override { value_ = toPropertyValue<T>(property(), value); }

protected:
    T value_;
};

template <class T, class Compare>
class QueryConditionScalar final : public NumberCondition<T> {
public:
    using NumberCondition<T>::NumberCondition;

    bool check(const QueryContext& context) const override {
        const uint8_t* const field = context.table.field(this->fieldOffset(), sizeof(T));
        return field && Compare()(loadNumber<T>(field), this->value_);
    }
    std::unique_ptr<QueryCondition> clone() const override {
        return std::make_unique<QueryConditionScalar>(*this);
    }

    bool canLookupIndex() const override { return kIsEqual && this->property().isIndexed(); }
    bool lookupIndex(IndexCursor& cursor, std::vector<uint64_t>& ids, bool&) override {
        if constexpr (!kIsEqual) {
            return false;
        } else if constexpr (std::is_floating_point_v<T>) {
            throwException("Use of unsafe end-swapped floating point value");
        } else if constexpr (sizeof(T) == sizeof(uint64_t)) {
            cursor.findScalarIds64(static_cast<uint64_t>(this->value_), &ids);
        } else {
            // Sign-extended, unlike the index's entries of 8 and 16 bits: a negative one of these
            // finds nothing there.
            cursor.findScalarIds32(static_cast<uint32_t>(this->value_), &ids);
        }
        return true;
    }

private:
    static constexpr bool kIsEqual = std::is_same_v<Compare, EqualBits>;
};

template <class T, class Compare>
class QueryConditionScalarVector final : public NumberCondition<T> {
public:
    using NumberCondition<T>::NumberCondition;

    bool check(const QueryContext& context) const override {
        const ObjectVector vector = context.table.vector(this->fieldOffset(), sizeof(T));
        for (size_t i = 0; i < vector.count; ++i) {
            if (Compare()(loadNumber<T>(vector.data + i * sizeof(T)), this->value_)) return true;
        }
        return false;
    }
    std::unique_ptr<QueryCondition> clone() const override {
        return std::make_unique<QueryConditionScalarVector>(*this);
    }
};

template <class T>
class QueryConditionBetween final : public QueryConditionWithProperty {
public:
    template <class Number>
    QueryConditionBetween(const Property& property, Number a, Number b)
        : QueryConditionWithProperty(QueryOp::Between, property, ParamKind::TwoNumbers) {
        setBounds(a, b);
    }

    bool check(const QueryContext& context) const override {
        const uint8_t* const field = context.table.field(fieldOffset(), sizeof(T));
        if (!field) return false;
        const T value = loadNumber<T>(field);
        return value >= low_ && high_ >= value;
    }
    std::string describe(uint32_t) const override {
        return property().name() + " between " + std::to_string(low_) + " and " +
               std::to_string(high_);
    }
    std::unique_ptr<QueryCondition> clone() const override {
        return std::make_unique<QueryConditionBetween>(*this);
    }
    void setTwoNumbers(int64_t a, int64_t b) override { setBounds(a, b); }
    void setTwoNumbers(double a, double b) override { setBounds(a, b); }

private:
    template <class Number>
    void setBounds(Number a, Number b) {
        const T first = toPropertyValue<T>(property(), a);
        const T second = toPropertyValue<T>(property(), b);
        // Keeps both, also a NaN, which no value is within.
        std::tie(low_, high_) = std::minmax(first, second);
    }

    T low_;
    T high_;
};

template <class T, class Compare, class Number>
std::unique_ptr<QueryCondition> makeNumberCondition(const Property& property, QueryOp op,
                                                    Number value) {
    if (propertyTypeSize(property.type()) != 0) {
        return std::make_unique<QueryConditionScalar<T, Compare>>(op, property, value);
    }
    return std::make_unique<QueryConditionScalarVector<T, Compare>>(op, property, value);
}

template <class T, class Number>
std::unique_ptr<QueryCondition> makeForOp(const Property& property, QueryOp op, Number value) {
    switch (op) {
        case QueryOp::Less:
            return makeNumberCondition<T, std::less<>>(property, op, value);
        case QueryOp::LessOrEqual:
            return makeNumberCondition<T, std::less_equal<>>(property, op, value);
        case QueryOp::Greater:
            return makeNumberCondition<T, std::greater<>>(property, op, value);
        case QueryOp::GreaterOrEqual:
            return makeNumberCondition<T, std::greater_equal<>>(property, op, value);
        case QueryOp::Equal:
            return makeNumberCondition<T, EqualBits>(property, op, value);
        case QueryOp::NotEqual:
            return makeNumberCondition<T, UnequalBits>(property, op, value);
        default:
            throwUnsupportedOp(op);
    }
}

}  // namespace

std::unique_ptr<QueryCondition> makeScalarCondition(const Property& property, QueryOp op,
                                                    int64_t value) {
    return withIntegerType(property, [&]<class T>(std::type_identity<T>) {
        return makeForOp<T>(property, op, value);
    });
}

std::unique_ptr<QueryCondition> makeScalarCondition(const Property& property, QueryOp op,
                                                    double value) {
    return withFloatType(property, [&]<class T>(std::type_identity<T>) {
        return makeForOp<T>(property, op, value);
    });
}

std::unique_ptr<QueryCondition> makeBetweenCondition(const Property& property, int64_t a,
                                                     int64_t b) {
    return withIntegerType(property, [&]<class T>(std::type_identity<T>) {
        return std::unique_ptr<QueryCondition>(
            std::make_unique<QueryConditionBetween<T>>(property, a, b));
    });
}

std::unique_ptr<QueryCondition> makeBetweenCondition(const Property& property, double a, double b) {
    return withFloatType(property, [&]<class T>(std::type_identity<T>) {
        return std::unique_ptr<QueryCondition>(
            std::make_unique<QueryConditionBetween<T>>(property, a, b));
    });
}

}  // namespace quillmere
