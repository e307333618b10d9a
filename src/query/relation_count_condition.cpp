#include "query/relation_count_condition.h"

#include <string>

#include "core/checks.h"
#include "core/error.h"
#include "schema/entity.h"
#include "store/cursor.h"
#include "store/index_cursor.h"
#include "store/index_cursor_set.h"
#include "store/object_table.h"

namespace quillmere {
namespace {

class QueryConditionRelationCount final : public QueryCondition {
public:
    QueryConditionRelationCount(const Entity& entity, const Property& relation, int32_t count)
        : QueryCondition(QueryOp::RelationCount), relation_(relation), count_(count),
          idOffset_(entity.idProperty().flatOffset()) {}

    bool check(const QueryContext& context) const override {
        const auto id = context.table.scalar<uint64_t>(idOffset_);
        CHECK_STATE_AT(28, id != 0);
        IndexCursorSet* const indexes =
            context.cursor.cursorFor(relation_.entityId()).indexCursorSet();
        IndexCursor* const indexCursor =
            indexes ? indexes->findIndexCursor(relation_.id()) : nullptr;
        CHECK_STATE_AT(31, indexCursor);
        if (count_ < 0) return false;
        const auto wanted = static_cast<uint64_t>(count_);
        return indexCursor->countScalarIds64(id, wanted + 1) == wanted;
    }
    std::string describe(uint32_t) const override {
        return "Has " + std::to_string(count_) + " related objects via " + relation_.name();
    }
    std::unique_ptr<QueryCondition> clone() const override {
        return std::make_unique<QueryConditionRelationCount>(*this);
    }

private:
    const Property& relation_;
    const int32_t count_;
    const uint16_t idOffset_;
};

}  // namespace

std::unique_ptr<QueryCondition> makeRelationCountCondition(const Entity& entity,
                                                           const Property& relation,
                                                           int32_t count) {
    constexpr const char* kIllegal =
        "Illegal query condition: for relation counts, the given property (";
    if (!relation.isRelation()) {
        throwIllegalArgument(kIllegal, relation.name(), ") must be of type relation but was not.");
    }
    if (relation.targetEntityId() != entity.id()) {
        throwIllegalArgument(kIllegal, relation.name(),
                             ") must target the queries type but does not.");
    }
    return std::make_unique<QueryConditionRelationCount>(entity, relation, count);
}

}  // namespace quillmere
