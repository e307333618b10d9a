#pragma once

// Collects conditions, links and orderings for one entity and turns them into a query.

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "query/condition.h"

namespace quillmere {

class Comparator;
class Entity;
class Property;
class Query;
class QueryConditionLink;
class QueryConditionWithProperty;
class Relation;
class Schema;

// Used by one thread. Single-use: build() hands everything over to the query and leaves an empty
// builder. A factory that throws leaves the builder as it was. Conditions are owned here; the
// references given out live until build().
class QueryBuilder {
public:
    // `debugFlags` are those of the store.
    QueryBuilder(const Entity& entity, std::weak_ptr<const Schema> schema, bool hasSchema,
                 uint32_t debugFlags);
    ~QueryBuilder();
    QueryBuilder(const QueryBuilder&) = delete;
    QueryBuilder& operator=(const QueryBuilder&) = delete;

    const Entity& entity() const { return entity_; }
    const std::vector<std::unique_ptr<QueryCondition>>& allConditions() const {
        return allConditions_;
    }

    // A condition can be combined once only.
    QueryCondition& all(const std::vector<QueryCondition*>& conditions);
    QueryCondition& any(const std::vector<QueryCondition*>& conditions);

    QueryCondition& isNull(const Property& property);
    QueryCondition& notNull(const Property& property);
    QueryCondition& equal(const Property& property, int64_t value);
    QueryCondition& notEqual(const Property& property, int64_t value);
    QueryCondition& greater(const Property& property, int64_t value, bool orEqual);
    QueryCondition& less(const Property& property, int64_t value, bool orEqual);
    QueryCondition& greater(const Property& property, double value, bool orEqual);
    QueryCondition& less(const Property& property, double value, bool orEqual);
    QueryCondition& between(const Property& property, int64_t a, int64_t b);
    QueryCondition& between(const Property& property, double a, double b);
    QueryCondition& in(const Property& property, const std::vector<int32_t>& values, bool negate);
    QueryCondition& in(const Property& property, const std::vector<int64_t>& values, bool negate);
    QueryCondition& equal(const Property& property, std::string_view value, bool caseSensitive);
    QueryCondition& notEqual(const Property& property, std::string_view value, bool caseSensitive);
    QueryCondition& greater(const Property& property, std::string_view value, bool caseSensitive,
                            bool orEqual);
    QueryCondition& less(const Property& property, std::string_view value, bool caseSensitive,
                         bool orEqual);
    QueryCondition& startsWith(const Property& property, std::string_view value,
                               bool caseSensitive);
    QueryCondition& endsWith(const Property& property, std::string_view value, bool caseSensitive);
    QueryCondition& contains(const Property& property, std::string_view value, bool caseSensitive);
    QueryCondition& containsElement(const Property& property, std::string_view value,
                                    bool caseSensitive);
    QueryCondition& containsKeyValue(const Property& property, std::string_view key,
                                     std::string_view value, bool caseSensitive);
    QueryCondition& in(const Property& property, const std::vector<std::string_view>& values,
                       bool caseSensitive);
    QueryCondition& equalBytes(const Property& property, const void* data, size_t size);
    QueryCondition& lessBytes(const Property& property, const void* data, size_t size,
                              bool orEqual);
    QueryCondition& greaterBytes(const Property& property, const void* data, size_t size,
                                 bool orEqual);
    QueryCondition& relationCount(const Property& property, int32_t count);

    // The first call is the primary key.
    void order(const Property& property, uint32_t flags);

    // The builder of the sub-query, owned here; it is built together with this one.
    QueryBuilder& link(const Entity* targetEntity, const Property* relationProperty,
                       bool backlink);
    QueryBuilder& link(const Entity* targetEntity, const Relation* relation, bool backlink);

    // Leaves an empty builder, also after a failure; only one of the ordering changes nothing.
    std::unique_ptr<Query> build();

    // Takes ownership; the only place that does.
    QueryCondition& addCondition(std::unique_ptr<QueryCondition> condition);

private:
    struct Order {
        const Property* property;
        uint32_t flags;
    };

    QueryCondition& combine(QueryOp op, const std::vector<QueryCondition*>& conditions);
    QueryBuilder& addLink(const Entity& targetEntity, std::unique_ptr<QueryConditionLink> link);
    std::shared_ptr<const Comparator> chainComparators() const;
    QueryCondition& prepareConditionsforQuery();
    void clear() noexcept;

    const Entity& entity_;
    std::weak_ptr<const Schema> schema_;
    const bool hasSchema_;
    std::vector<std::unique_ptr<QueryCondition>> allConditions_;
    std::vector<std::unique_ptr<QueryBuilder>> subQueryBuilders_;
    std::vector<std::unique_ptr<QueryConditionLink>> links_;
    std::vector<QueryCondition*> composableConditions_;  // not yet part of a combination
    std::vector<Order> orders_;
    bool logQueries_ = false;
    bool logParameters_ = false;
};

}  // namespace quillmere
