#pragma once

// Restricts a query by a condition on related objects: objects of A whose related B matches Q.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "query/condition.h"

namespace quillmere {

class Query;
class QueryBuilder;
class Relation;

// Not a node of the condition tree: the query intersects its candidates with the IDs of each link.
// Owned by the builder, then by the query.
class QueryConditionLink : public QueryCondition {
public:
    // Through a to-one property or a standalone relation; `backlink`: against its direction.
    QueryConditionLink(uint32_t linkedEntityId, const Property& relationProperty, bool backlink);
    QueryConditionLink(uint32_t linkedEntityId, const Relation& relation, bool backlink);
    ~QueryConditionLink() override;

    uint32_t linkedEntityId() const { return linkedEntityId_; }
    bool hasSubQuery() const { return subQuery_ != nullptr; }
    // REQUIRES: hasSubQuery(), true once the query is built.
    Query& subQuery() const { return *subQuery_; }
    void setSubQuery(std::unique_ptr<Query> subQuery);

    bool check(const QueryContext&) const override { return false; }
    std::string describe(uint32_t indent) const override;
    // Runs the sub-query and gives the IDs on the linking side, ascending and without duplicates.
    // `ids` must be empty.
    void lookupIds(Cursor& cursor, std::vector<uint64_t>& ids) const;
    // Whether all IDs of lookupIds() are those of objects: entries of the property's index are.
    // Relations and to-one properties may name any ID.
    bool findsObjects() const { return relationProperty_ && !backlink_; }
    // Takes the place of clone(), which fails.
    std::unique_ptr<QueryConditionLink> cloneWith(QueryBuilder* builder,
                                                  std::unique_ptr<Query> subQuery) const;

private:
    using Ids = std::vector<uint64_t>;

    void stepThroughRelation(Cursor& source, const Ids& linked, Ids& ids) const;
    void stepAgainstProperty(Cursor& source, const Ids& linked, Ids& ids) const;
    void stepThroughProperty(Cursor& source, const Ids& linked, Ids& ids) const;

    std::unique_ptr<Query> subQuery_;
    const uint32_t linkedEntityId_;
    const Relation* const relation_;          // null for a link through a property
    const Property* const relationProperty_;  // null for a link through a relation
    const bool backlink_;
};

}  // namespace quillmere
