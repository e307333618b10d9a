#include "query/flex_condition.h"

#include <string>

#include "query/flex_value.h"
#include "query/string_condition.h"
#include "query/text_compare.h"
#include "schema/property.h"
#include "store/object_table.h"

namespace quillmere {
namespace {

class QueryConditionFlex : public QueryConditionString {
public:
    QueryConditionFlex(QueryOp op, const Property& property, std::string_view value,
                       bool caseSensitive, ParamKind paramKind = ParamKind::String)
        : QueryConditionString(op, property, value, caseSensitive, paramKind) {}

    bool check(const QueryContext& context) const override {
        const auto root = FlexValue::root(context.table.string(fieldOffset()));
        return root && matches(*root);
    }

private:
    virtual bool matches(const FlexValue& root) const = 0;
};

class FlexEqual final : public QueryConditionFlex {
public:
    using QueryConditionFlex::QueryConditionFlex;

    std::unique_ptr<QueryCondition> clone() const override {
        return std::make_unique<FlexEqual>(*this);
    }

private:
    bool matches(const FlexValue& root) const override {
        return root.equals(value(), caseSensitive());
    }
};

class FlexContains final : public QueryConditionFlex {
public:
    using QueryConditionFlex::QueryConditionFlex;

    std::unique_ptr<QueryCondition> clone() const override {
        return std::make_unique<FlexContains>(*this);
    }

private:
    bool matches(const FlexValue& root) const override {
        if (const auto map = root.map()) return hasKey(*map);
        const auto list = root.list();
        if (!list) return false;
        for (size_t i = 0; i < list->size(); ++i) {
            if (list->at(i).equals(value(), caseSensitive())) return true;
        }
        return false;
    }
    bool hasKey(const FlexMap& map) const {
        if (caseSensitive()) return map.find(value()).has_value();
        for (size_t i = 0; i < map.size(); ++i) {
            if (equalText<CaseInsensitive>(map.keyAt(i), value())) return true;
        }
        return false;
    }
};

class FlexKeyValue final : public QueryConditionFlex {
public:
    FlexKeyValue(const Property& property, std::string_view key, std::string_view value,
                 bool caseSensitive)
        : QueryConditionFlex(QueryOp::Contains, property, value, caseSensitive,
                             ParamKind::TwoStrings),
          key_(key) {}

    std::string describe(uint32_t) const override {
        return property().name() + " contains \"" + key_ + "\"=\"" + value() + '"';
    }
    std::unique_ptr<QueryCondition> clone() const override {
        return std::make_unique<FlexKeyValue>(*this);
    }
    void setTwoStrings(std::string_view key, std::string_view value) override {
        key_ = key;
        setString(value);
    }

private:
    bool matches(const FlexValue& root) const override {
        const auto map = root.map();
        if (!map) return false;
        if (caseSensitive()) {
            const auto found = map->find(key_);
            return found && found->equals(value(), true);
        }
        for (size_t i = 0; i < map->size(); ++i) {
            if (equalText<CaseInsensitive>(map->keyAt(i), key_) &&
                map->valueAt(i).equals(value(), false)) {
                return true;
            }
        }
        return false;
    }

    std::string key_;
};

}  // namespace

std::unique_ptr<QueryCondition> makeFlexEqualCondition(const Property& property,
                                                       std::string_view value,
                                                       bool caseSensitive) {
    return std::make_unique<FlexEqual>(QueryOp::Equal, property, value, caseSensitive);
}

std::unique_ptr<QueryCondition> makeFlexContainsCondition(const Property& property,
                                                          std::string_view value,
                                                          bool caseSensitive) {
    return std::make_unique<FlexContains>(QueryOp::Contains, property, value, caseSensitive);
}

std::unique_ptr<QueryCondition> makeFlexKeyValueCondition(const Property& property,
                                                          std::string_view key,
                                                          std::string_view value,
                                                          bool caseSensitive) {
    return std::make_unique<FlexKeyValue>(property, key, value, caseSensitive);
}

}  // namespace quillmere
