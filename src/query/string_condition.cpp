#include "query/string_condition.h"

#include <optional>

#include "query/folded_search.h"
#include "query/text_compare.h"
#include "schema/property.h"
#include "store/index_cursor.h"
#include "store/object_table.h"

namespace quillmere {
namespace {

std::optional<IndexMatch> indexMatch(QueryOp op) {
    switch (op) {
        case QueryOp::Equal: return IndexMatch::Equal;
        case QueryOp::Less: return IndexMatch::Less;
        case QueryOp::LessOrEqual: return IndexMatch::LessOrEqual;
        case QueryOp::Greater: return IndexMatch::Greater;
        case QueryOp::GreaterOrEqual: return IndexMatch::GreaterOrEqual;
        case QueryOp::StartsWith: return IndexMatch::StartsWith;
        default: return std::nullopt;
    }
}

// The rules say whether a stored string `s` and a parameter `p` match.
template <class Case>
struct IsEqual {
    static bool holds(std::string_view s, std::string_view p) { return equalText<Case>(s, p); }
};
template <class Case>
struct IsNotEqual {
    static bool holds(std::string_view s, std::string_view p) { return !equalText<Case>(s, p); }
};
template <class Case>
struct IsLess {
    static bool holds(std::string_view s, std::string_view p) {
        return compareText<Case>(s, p) < 0;
    }
};
template <class Case>
struct IsLessOrEqual {
    static bool holds(std::string_view s, std::string_view p) {
        return compareText<Case>(s, p) <= 0;
    }
};
template <class Case>
struct IsGreater {
    static bool holds(std::string_view s, std::string_view p) {
        return compareText<Case>(s, p) > 0;
    }
};
template <class Case>
struct IsGreaterOrEqual {
    static bool holds(std::string_view s, std::string_view p) {
        return compareText<Case>(s, p) >= 0;
    }
};
template <class Case>
struct StartsWith {
    static bool holds(std::string_view s, std::string_view p) {
        return s.size() >= p.size() && Case::compare(s.data(), p.data(), p.size()) == 0;
    }
};
template <class Case>
struct EndsWith {
    static bool holds(std::string_view s, std::string_view p) {
        return s.size() >= p.size() &&
               Case::compare(s.data() + s.size() - p.size(), p.data(), p.size()) == 0;
    }
};

struct Contains {
    static bool holds(std::string_view s, std::string_view p) {
        return s.find(p) != std::string_view::npos;
    }
};

template <class Rule>
class StringByRule final : public QueryConditionString {
public:
    StringByRule(QueryOp op, const Property& property, std::string_view value, bool caseSensitive)
        : QueryConditionString(op, property, value, caseSensitive) {}

    bool check(const QueryContext& context) const override {
        const std::string_view stored = context.table.string(fieldOffset());
        return stored.data() && Rule::holds(stored, value());
    }
    std::unique_ptr<QueryCondition> clone() const override {
        return std::make_unique<StringByRule>(*this);
    }
    // An index sorts by raw bytes, and a hash index not even by them.
    bool canLookupIndex() const override {
        constexpr uint32_t kHash = kPropertyIndexHash | kPropertyIndexHash64;
        if (!caseSensitive() || !property().isIndexed() || !indexMatch(op())) return false;
        return op() == QueryOp::Equal || (property().flags() & kHash) == 0;
    }
    bool lookupIndex(IndexCursor& cursor, std::vector<uint64_t>& ids, bool& notDefinite) override {
        cursor.findIds(value(), &ids, notDefinite, *indexMatch(op()));
        return caseSensitive();
    }
};

class StringContainsFolded final : public QueryConditionString {
public:
    StringContainsFolded(const Property& property, std::string_view value)
        : QueryConditionString(QueryOp::Contains, property, value, false), search_(value) {}

    bool check(const QueryContext& context) const override {
        const std::string_view stored = context.table.string(fieldOffset());
        return stored.data() && search_.foundIn(stored);
    }
    std::unique_ptr<QueryCondition> clone() const override {
        return std::make_unique<StringContainsFolded>(*this);
    }
    void setString(std::string_view value) override {
        search_ = FoldedSearch(value);
        QueryConditionString::setString(value);
    }

private:
    FoldedSearch search_;
};

class QueryConditionStringVectorContains final : public QueryConditionString {
public:
    QueryConditionStringVectorContains(const Property& property, std::string_view value,
                                       bool caseSensitive)
        : QueryConditionString(QueryOp::Contains, property, value, caseSensitive) {}

    bool check(const QueryContext& context) const override {
        const ObjectVector strings = context.table.stringVector(fieldOffset());
        for (size_t i = 0; i < strings.count; ++i) {
            const std::string_view string = context.table.stringAt(strings, i);
            if (string.data() && equalText(string, value(), caseSensitive())) return true;
        }
        return false;
    }
    std::unique_ptr<QueryCondition> clone() const override {
        return std::make_unique<QueryConditionStringVectorContains>(*this);
    }
};

template <template <class> class Rule>
std::unique_ptr<QueryCondition> makeByRule(const Property& property, QueryOp op,
                                           std::string_view value, bool caseSensitive) {
    if (caseSensitive) {
        return std::make_unique<StringByRule<Rule<CaseSensitive>>>(op, property, value, true);
    }
    return std::make_unique<StringByRule<Rule<CaseInsensitive>>>(op, property, value, false);
}

}  // namespace

std::string QueryConditionString::describe(uint32_t) const {
    return property().name() + ' ' + queryOpWord(op()) + (caseSensitive_ ? " \"" : "(i) \"") +
           value_ + '"';
}

std::unique_ptr<QueryCondition> makeStringCondition(const Property& property, QueryOp op,
                                                    std::string_view value, bool caseSensitive) {
    switch (op) {
        case QueryOp::Equal: return makeByRule<IsEqual>(property, op, value, caseSensitive);
        case QueryOp::NotEqual: return makeByRule<IsNotEqual>(property, op, value, caseSensitive);
        case QueryOp::Less: return makeByRule<IsLess>(property, op, value, caseSensitive);
        case QueryOp::LessOrEqual:
            return makeByRule<IsLessOrEqual>(property, op, value, caseSensitive);
        case QueryOp::Greater: return makeByRule<IsGreater>(property, op, value, caseSensitive);
        case QueryOp::GreaterOrEqual:
            return makeByRule<IsGreaterOrEqual>(property, op, value, caseSensitive);
        case QueryOp::StartsWith: return makeByRule<StartsWith>(property, op, value, caseSensitive);
        case QueryOp::EndsWith: return makeByRule<EndsWith>(property, op, value, caseSensitive);
        case QueryOp::Contains:
            if (!caseSensitive) return std::make_unique<StringContainsFolded>(property, value);
            return std::make_unique<StringByRule<Contains>>(op, property, value, true);
        default: throwUnsupportedOp(op);
    }
}

std::unique_ptr<QueryCondition> makeStringVectorCondition(const Property& property,
                                                          std::string_view value,
                                                          bool caseSensitive) {
    return std::make_unique<QueryConditionStringVectorContains>(property, value, caseSensitive);
}

}  // namespace quillmere
