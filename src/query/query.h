#pragma once

// The immutable product of a builder plus a little run state.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/bytes.h"
#include "core/hash.h"
#include "query/query_plan.h"
#include "store/object_table.h"

namespace quillmere {

class Comparator;
class Cursor;
class Entity;
class QueryCondition;
class QueryConditionLink;
class QueryConditionWithProperty;
class Schema;

// Runs on a cursor of its entity, inside the cursor's transaction and on its thread. Used by one
// thread at a time: runs and parameters change it. Object bytes given out are views into the
// transaction. Clones are independent in their values.
class Query {
public:
    struct Definition {
        const Entity* entity = nullptr;
        std::weak_ptr<const Schema> schema;
        bool hadSchema = false;
        QueryCondition* root = nullptr;
        std::shared_ptr<const Comparator> comparator;
        std::vector<std::unique_ptr<QueryCondition>> conditions;
        std::vector<std::unique_ptr<QueryConditionLink>> links;
        bool logQueries = false;
        bool logParameters = false;
        bool reverse = false;
    };

    struct IdScore {
        uint64_t id;
        double score;
    };
    struct ScoredObject {
        uint64_t id;
        double score;
        Bytes object;
    };

    // Throws for an alias that occurs twice.
    explicit Query(Definition definition);
    ~Query();
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    // Limit 0 means none, everywhere.
    uint64_t count(Cursor& cursor, uint64_t limit = 0);
    void find(Cursor& cursor, std::vector<Bytes>& out, uint64_t offset = 0, uint64_t limit = 0);
    // False without a match.
    bool findFirst(Cursor& cursor, Bytes& out);
    bool findUnique(Cursor& cursor, Bytes& out);  // throws NonUniqueResultException
    // `out` is replaced.
    void findIds(Cursor& cursor, std::vector<uint64_t>& out, uint64_t offset = 0,
                 uint64_t limit = 0);
    uint64_t findFirstId(Cursor& cursor);   // 0 without a match
    uint64_t findUniqueId(Cursor& cursor);
    std::vector<uint64_t> findIdsByScore(Cursor& cursor, uint64_t offset = 0, uint64_t limit = 0);
    std::vector<IdScore> findIdsWithScores(Cursor& cursor, uint64_t offset = 0,
                                           uint64_t limit = 0);
    std::vector<ScoredObject> findWithScores(Cursor& cursor, uint64_t offset = 0,
                                             uint64_t limit = 0);
    uint64_t remove(Cursor& cursor, std::vector<uint64_t>* removedIds = nullptr);
    // Until the visitor returns false.
    void visit(Cursor& cursor, uint64_t offset, uint64_t limit,
               const std::function<bool(const Bytes& object)>& visitor);

    std::string describe() const;
    std::string describeParameters(uint32_t indent = 0) const;
    std::unique_ptr<Query> clone() const;

    // The condition that a parameter call addresses, also of a sub-query.
    QueryConditionWithProperty& findCondition(std::string_view alias);
    QueryConditionWithProperty& findCondition(uint32_t entityId, uint32_t propertyId);

    // Calls `visitor(id, table, bytes)` for each match until it returns false. The template behind
    // every operation, see query/visit_matches.h; a scan costs one virtual call per object and
    // condition at most.
    template <class Visitor>
    void visitMatches(Cursor& cursor, Visitor&& visitor);

    // IDs in ascending order, without regard to the ordering. `out` is replaced.
    void findIdsWithoutComparator(Cursor& cursor, std::vector<uint64_t>& out, uint64_t limit);

    const Entity& entity() const { return *entity_; }
    uint32_t number() const { return number_; }
    bool logQueries() const { return logQueries_; }
    bool hasConditions() const { return hasConditions_; }
    bool hasLinks() const { return !links_.empty(); }
    bool hasLookups() const { return hasLookups_; }
    bool ordered() const { return comparator_ != nullptr; }
    // "what #number" and the parameters, as far as the store logs queries.
    void logOperation(const char* what) const;
    void logParameters() const;
    // What the last run did, for tests and logs.
    uint64_t lastCandidateCount() const { return lastCandidateCount_; }
    uint64_t lastLookupCount() const { return lastLookupCount_; }
    bool lastAllDefinite() const { return lastAllDefinite_; }
    void setRunState(uint64_t candidates, uint64_t lookups, bool allDefinite);
    // Throws IllegalStateException once the entity is gone.
    void checkUsable() const;
    // Throws IllegalArgumentException for a cursor of another entity.
    void checkCursor(const Cursor& cursor) const;

private:
    using Ids = std::vector<uint64_t>;

    static uint64_t propertyKey(uint32_t entityId, uint32_t propertyId) {
        return uint64_t{entityId} << 32 | propertyId;
    }
    void indexConditions();
    void indexSubQueries();
    void indexAlias(const std::string& alias, QueryConditionWithProperty* condition);
    void logFind(uint64_t offset, uint64_t limit) const;
    void startRun(const Cursor& cursor);
    void resetRun();
    size_t expectedSize(uint64_t limit) const;
    // Whether look-ups or links applied; then the matches are among `result`.
    bool lookupCandidateIds(Cursor& cursor, Ids& result);
    // Gives the number of look-ups.
    uint64_t lookupIndexIds(Cursor& cursor, Ids& result);
    bool anyLinkFindsObjects() const;
    void intersectWithLinks(Cursor& cursor, bool lookedUp, Ids& result);
    void keepMatches(Cursor& cursor, Ids& candidates, uint64_t limit);

    template <class Visitor>
    void visitCandidates(Cursor& cursor, const Ids& candidates, Visitor& visitor);
    template <class Visitor>
    void visitAll(Cursor& cursor, Visitor& visitor);
    template <class Visitor>
    void visitMatchesOrdered(Cursor& cursor, uint64_t offset, uint64_t limit, Visitor&& visitor);
    template <class Visitor>
    void visitWindow(Cursor& cursor, uint64_t offset, uint64_t limit, Visitor&& visitor);
    template <class Contains, class Visitor>
    void visitScores(uint64_t offset, uint64_t limit, Contains&& contains,
                     Visitor&& visitor) const;
    static std::atomic<uint32_t> nextNumber_;  // process-wide

    const Entity* entity_;
    std::weak_ptr<const Schema> schema_;
    QueryCondition* root_;
    std::vector<std::unique_ptr<QueryCondition>> allConditions_;
    std::vector<std::unique_ptr<QueryConditionLink>> links_;
    std::unordered_map<uint64_t, QueryConditionWithProperty*, FnvHash<uint64_t>>
        conditionsByProperty_;
    std::unordered_map<std::string, QueryConditionWithProperty*, FnvHash<std::string>,
                       std::equal_to<>>
        conditionsByAlias_;
    QueryPlan plan_;
    std::shared_ptr<const Comparator> comparator_;
    uint32_t number_;
    uint64_t definiteLookupsNeeded_;
    std::optional<std::vector<IdScore>> scores_;
    std::vector<uint64_t> candidates_;  // memory for runs, see LentIds
    std::vector<uint64_t> scratch_;
    uint64_t lastCandidateCount_ = 0;
    uint64_t lastLookupCount_ = 0;
    bool lastAllDefinite_ = false;
    const bool hadSchema_;
    const bool hasConditions_;
    const bool hasLookups_;
    const bool logQueries_;
    const bool logParameters_;
    const bool reverse_;
};

}  // namespace quillmere
