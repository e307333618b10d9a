#pragma once

// Random condition trees in three forms: for the query builder, as a predicate on rows and, as far
// as it goes, in SQL.

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "query/query_builder.h"
#include "query/random_rows.h"
#include "schema/entity.h"

namespace quillmere {

struct RandomCondition {
    std::function<QueryCondition&(QueryBuilder&)> make;
    std::function<bool(const Row&)> matches;
    std::string sql;
};

inline std::string foldText(std::string text, bool caseSensitive = false) {
    if (caseSensitive) return text;
    for (char& c : text) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    return text;
}

inline std::string sqlName(const Column& column) {
    return "c" + std::to_string(column.id);
}

// What an index can not answer as objects would is left out: "==" with a negative 8- or 16-bit
// value.
class RandomConditions {
public:
    RandomConditions(RandomRows& random, const std::vector<Column>& columns)
        : random_(random), columns_(columns) {}

    RandomCondition tree(int depth) {
        if (depth == 0 || random_.oneIn(3)) return leaf();
        const bool any = random_.oneIn(2);
        std::vector<RandomCondition> children;
        std::string sql;
        for (uint64_t count = 1 + random_.below(3); count > 0; --count) {
            children.push_back(tree(depth - 1));
            sql += (sql.empty() ? "(" : any ? " OR " : " AND ") + children.back().sql;
        }
        return {[=](QueryBuilder& builder) -> QueryCondition& {
                    std::vector<QueryCondition*> made;
                    for (const auto& child : children) made.push_back(&child.make(builder));
                    return any ? builder.any(made) : builder.all(made);
                },
                [=](const Row& row) {
                    const auto matches = [&](const auto& child) { return child.matches(row); };
                    return any ? std::any_of(children.begin(), children.end(), matches)
                               : std::all_of(children.begin(), children.end(), matches);
                },
                sql + ")"};
    }

    RandomCondition leaf() {
        const Column& column = columns_[random_.below(columns_.size())];
        if (random_.oneIn(8)) return null(column);
        if (column.isString()) return text(column);
        if (column.isFloat() || column.isFloatVector()) return floating(column);
        if (column.type == PropertyType::StringVector) return element(column);
        if (column.type == PropertyType::ByteVector && random_.oneIn(2)) return bytes(column);
        if (column.isInteger() && random_.oneIn(4)) {
            if (column.type == PropertyType::Int || column.width() == 8) return inIntegers(column);
        }
        if (column.isInteger() && column.type != PropertyType::Bool && random_.oneIn(4)) {
            return between(column);
        }
        return integer(column);
    }

private:
    using Property = quillmere::Property;

    static const Property& property(QueryBuilder& builder, uint32_t id) {
        return builder.entity().propertyById(id);
    }

    RandomCondition null(const Column& column) {
        const bool wanted = random_.oneIn(2);
        const uint32_t id = column.id;
        return {[=](QueryBuilder& builder) -> QueryCondition& {
                    return wanted ? builder.isNull(property(builder, id))
                                  : builder.notNull(property(builder, id));
                },
                [=](const Row& row) {
                    return wanted == std::holds_alternative<std::monostate>(row.at(id));
                },
                sqlName(column) + (wanted ? " IS NULL" : " IS NOT NULL")};
    }

    enum Op { kEqual, kNotEqual, kLess, kLessOrEqual, kGreater, kGreaterOrEqual, kOps };

    template <class T>
    static bool holds(Op op, const T& a, const T& b) {
        switch (op) {
            case kEqual: return a == b;
            case kNotEqual: return a != b;
            case kLess: return a < b;
            case kLessOrEqual: return a <= b;
            case kGreater: return a > b;
            default: return a >= b;
        }
    }
    static std::string word(Op op) {
        static const char* const kWords[] = {" = ", " <> ", " < ", " <= ", " > ", " >= "};
        return kWords[op];
    }
    static bool orEqual(Op op) { return op == kLessOrEqual || op == kGreaterOrEqual; }
    template <class Matches>
    static bool anyElement(const Row& row, uint32_t id, Matches&& matches) {
        if (const auto* value = row.get<int64_t>(id)) return matches(*value);
        const auto* values = row.get<std::vector<int64_t>>(id);
        return values && std::any_of(values->begin(), values->end(), matches);
    }

    int64_t argument(const Column& column) {
        const int64_t value = random_.integer(column);
        return column.isUnsigned() && value < 0 ? value & INT64_MAX : value;
    }

    RandomCondition integer(const Column& column) {
        const bool isBool =
            column.type == PropertyType::Bool || column.type == PropertyType::BoolVector;
        const Op op = static_cast<Op>(random_.below(isBool ? 2 : kOps));
        int64_t value = argument(column);
        if (op == kEqual && column.width() < 4) value = std::max<int64_t>(value, 0);
        const uint32_t id = column.id;
        const bool isUnsigned = column.isUnsigned();
        return {[=](QueryBuilder& builder) -> QueryCondition& {
                    const Property& p = property(builder, id);
                    if (op == kEqual) return builder.equal(p, value);
                    if (op == kNotEqual) return builder.notEqual(p, value);
                    if (op == kLess || op == kLessOrEqual) return builder.less(p, value, orEqual(op));
                    return builder.greater(p, value, orEqual(op));
                },
                [=](const Row& row) {
                    return anyElement(row, id, [&](int64_t stored) {
                        if (!isUnsigned) return holds(op, stored, value);
                        return holds(op, static_cast<uint64_t>(stored),
                                     static_cast<uint64_t>(value));
                    });
                },
                sqlName(column) + word(op) + std::to_string(value)};
    }

    RandomCondition between(const Column& column) {
        const int64_t a = argument(column), b = argument(column);
        const int64_t low = std::min(a, b), high = std::max(a, b);
        const uint32_t id = column.id;
        const bool isUnsigned = column.isUnsigned();
        return {[=](QueryBuilder& builder) -> QueryCondition& {
                    return builder.between(property(builder, id), a, b);
                },
                [=](const Row& row) {
                    const auto* stored = row.get<int64_t>(id);
                    if (!stored || (isUnsigned && *stored < 0)) return false;
                    return low <= *stored && *stored <= high;
                },
                sqlName(column) + " BETWEEN " + std::to_string(low) + " AND " +
                    std::to_string(high)};
    }

    RandomCondition inIntegers(const Column& column) {
        std::vector<int64_t> values;
        std::string sql = " IN (";
        for (uint64_t count = random_.below(5); count > 0; --count) {
            values.push_back(random_.integer(column));
            sql += (values.size() == 1 ? "" : ", ") + std::to_string(values.back());
        }
        const bool negate = random_.oneIn(2);
        const uint32_t id = column.id;
        const bool narrow = column.type == PropertyType::Int;
        sql = sqlName(column) + (negate ? " NOT" : "") + sql + ")";
        if (negate) sql = "(" + sqlName(column) + " IS NULL OR " + sql + ")";
        return {[=](QueryBuilder& builder) -> QueryCondition& {
                    const Property& p = property(builder, id);
                    if (!narrow) return builder.in(p, values, negate);
                    std::vector<int32_t> ints;
                    for (const int64_t v : values) ints.push_back(static_cast<int32_t>(v));
                    return builder.in(p, ints, negate);
                },
                [=](const Row& row) {
                    const auto* stored = row.get<int64_t>(id);
                    const bool found = stored && std::count(values.begin(), values.end(), *stored);
                    return found != negate;
                },
                sql};
    }

    static std::string sqlNumber(double value) {
        if (std::isinf(value)) return value > 0 ? "9e999" : "-9e999";
        char text[40];
        std::snprintf(text, sizeof text, "%.17g", value);
        return text;
    }

    RandomCondition floating(const Column& column) {
        const uint32_t id = column.id;
        const bool single = column.width() == 4;
        const double a = random_.floating(single), b = random_.floating(single);
        if (column.isFloat() && random_.oneIn(2)) {
            return {[=](QueryBuilder& builder) -> QueryCondition& {
                        return builder.between(property(builder, id), a, b);
                    },
                    [=](const Row& row) {
                        const auto* v = row.get<double>(id);
                        return v && ((a <= *v && *v <= b) || (b <= *v && *v <= a));
                    },
                    sqlName(column) + " BETWEEN " + sqlNumber(std::min(a, b)) + " AND " +
                        sqlNumber(std::max(a, b))};
        }
        const Op op = static_cast<Op>(kLess + random_.below(4));
        return {[=](QueryBuilder& builder) -> QueryCondition& {
                    const Property& p = property(builder, id);
                    return op == kLess || op == kLessOrEqual ? builder.less(p, a, orEqual(op))
                                                             : builder.greater(p, a, orEqual(op));
                },
                [=](const Row& row) {
                    const auto matches = [&](double stored) { return holds(op, stored, a); };
                    if (const auto* value = row.get<double>(id)) return matches(*value);
                    const auto* values = row.get<std::vector<double>>(id);
                    return values && std::any_of(values->begin(), values->end(), matches);
                },
                sqlName(column) + word(op) + sqlNumber(a)};
    }

    static std::string sqlText(const std::string& text) { return "'" + text + "'"; }

    RandomCondition text(const Column& column) {
        const bool exact = random_.oneIn(2);
        switch (random_.below(10)) {
            case 0: return inTexts(column, exact);
            case 1: return partOfText(column, exact, 0);
            case 2: return partOfText(column, exact, 1);
            case 3: return partOfText(column, exact, 2);
            default: return compareText(column, exact);
        }
    }

    RandomCondition compareText(const Column& column, bool exact) {
        const std::string value = random_.text();
        const Op op = static_cast<Op>(random_.below(kOps));
        const uint32_t id = column.id;
        const std::string folded = foldText(value, exact);
        const std::string name = sqlName(column);
        return {[=](QueryBuilder& builder) -> QueryCondition& {
                    const Property& p = property(builder, id);
                    if (op == kEqual) return builder.equal(p, value, exact);
                    if (op == kNotEqual) return builder.notEqual(p, value, exact);
                    return op == kLess || op == kLessOrEqual
                               ? builder.less(p, value, exact, orEqual(op))
                               : builder.greater(p, value, exact, orEqual(op));
                },
                [=](const Row& row) {
                    const auto* stored = row.get<std::string>(id);
                    return stored && holds(op, foldText(*stored, exact), folded);
                },
                (exact ? name : "lower(" + name + ")") + word(op) + sqlText(folded)};
    }

    // 0: starts with, 1: ends with, 2: contains.
    RandomCondition partOfText(const Column& column, bool exact, int kind) {
        const std::string value = random_.text();
        const std::string part = foldText(value, exact);
        const uint32_t id = column.id;
        const std::string name =
            exact ? sqlName(column) : "lower(" + sqlName(column) + ")";
        const std::string length = "length(" + sqlText(part) + ")";
        std::string sql = "instr(" + name + ", " + sqlText(part) + ") > 0";
        if (kind == 0) sql = "substr(" + name + ", 1, " + length + ") = " + sqlText(part);
        if (kind == 1) {
            sql = part.empty() ? sqlName(column) + " IS NOT NULL"
                               : "(length(" + name + ") >= " + length + " AND substr(" + name +
                                     ", -" + length + ") = " + sqlText(part) + ")";
        }
        return {[=](QueryBuilder& builder) -> QueryCondition& {
                    const Property& p = property(builder, id);
                    if (kind == 0) return builder.startsWith(p, value, exact);
                    if (kind == 1) return builder.endsWith(p, value, exact);
                    return builder.contains(p, value, exact);
                },
                [=](const Row& row) {
                    const auto* stored = row.get<std::string>(id);
                    if (!stored) return false;
                    const std::string whole = foldText(*stored, exact);
                    if (kind == 0) return whole.starts_with(part);
                    if (kind == 1) return whole.ends_with(part);
                    return whole.find(part) != std::string::npos;
                },
                sql};
    }

    RandomCondition inTexts(const Column& column, bool exact) {
        std::vector<std::string> values;
        std::string sql;
        for (uint64_t count = random_.below(4); count > 0; --count) {
            values.push_back(random_.text());
            sql += (sql.empty() ? "" : ", ") + sqlText(foldText(values.back(), exact));
        }
        const uint32_t id = column.id;
        const std::string name = sqlName(column);
        return {[=](QueryBuilder& builder) -> QueryCondition& {
                    const std::vector<std::string_view> views(values.begin(), values.end());
                    return builder.in(property(builder, id), views, exact);
                },
                [=](const Row& row) {
                    const auto* stored = row.get<std::string>(id);
                    return stored &&
                           std::any_of(values.begin(), values.end(), [&](const std::string& v) {
                               return foldText(v, exact) == foldText(*stored, exact);
                           });
                },
                (exact ? name : "lower(" + name + ")") + " IN (" + sql + ")"};
    }

    RandomCondition element(const Column& column) {
        const bool exact = random_.oneIn(2);
        const std::string value = random_.text();
        const uint32_t id = column.id;
        return {[=](QueryBuilder& builder) -> QueryCondition& {
                    return builder.containsElement(property(builder, id), value, exact);
                },
                [=](const Row& row) {
                    const auto* texts = row.get<std::vector<std::string>>(id);
                    return texts &&
                           std::any_of(texts->begin(), texts->end(), [&](const std::string& text) {
                               return foldText(text, exact) == foldText(value, exact);
                           });
                },
                ""};
    }

    RandomCondition bytes(const Column& column) {
        std::string value;
        for (uint64_t size = random_.below(4); size > 0; --size) {
            value.push_back(static_cast<char>(random_.integer(column)));
        }
        const uint64_t kind = random_.below(3);
        const bool orEqual = random_.oneIn(2);
        const uint32_t id = column.id;
        return {[=](QueryBuilder& builder) -> QueryCondition& {
                    const Property& p = property(builder, id);
                    if (kind == 0) return builder.equalBytes(p, value.data(), value.size());
                    return kind == 1
                               ? builder.lessBytes(p, value.data(), value.size(), orEqual)
                               : builder.greaterBytes(p, value.data(), value.size(), orEqual);
                },
                [=](const Row& row) {
                    const auto* stored = row.get<std::vector<int64_t>>(id);
                    if (!stored) return false;
                    const std::string all(stored->begin(), stored->end());
                    const int order = all.compare(value);
                    if (order == 0) return kind == 0 || orEqual;
                    return kind != 0 && (kind == 1) == (order < 0);
                },
                ""};
    }

    RandomRows& random_;
    const std::vector<Column>& columns_;
};

}  // namespace quillmere
