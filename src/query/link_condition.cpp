#include "query/link_condition.h"

#include <algorithm>
#include <bit>
#include <utility>

#include "core/bytes.h"
#include "core/checks.h"
#include "query/query.h"
#include "schema/entity.h"
#include "schema/property.h"
#include "schema/relation.h"
#include "store/cursor.h"
#include "store/index_cursor.h"
#include "store/object_id.h"
#include "store/object_table.h"
#include "store/relation_cursor.h"

namespace quillmere {
namespace {

constexpr uint64_t kWordBits = 64;
// Up to so many bits for each ID, a bitmap is much faster than sorting.
constexpr uint64_t kMaxBitsPerId = 256;

// `first` is the lowest ID and none is more than `distance` above it.
void sortUniqueByBitmap(std::vector<uint64_t>& ids, uint64_t first, uint64_t distance) {
    std::vector<uint64_t> words(distance / kWordBits + 1);
    for (const uint64_t id : ids) {
        words[(id - first) / kWordBits] |= uint64_t{1} << (id - first) % kWordBits;
    }
    ids.clear();  // keeps the room for at least as many
    for (size_t i = 0; i < words.size(); ++i) {
        for (uint64_t word = words[i]; word != 0; word &= word - 1) {
            ids.push_back(first + i * kWordBits + static_cast<uint64_t>(std::countr_zero(word)));
        }
    }
}

void sortUnique(std::vector<uint64_t>& ids) {
    if (ids.empty()) return;
    const auto [low, high] = std::minmax_element(ids.begin(), ids.end());
    const uint64_t first = *low, distance = *high - *low;
    if (distance / kMaxBitsPerId < ids.size()) {
        sortUniqueByBitmap(ids, first, distance);
    } else {
        std::sort(ids.begin(), ids.end());
        ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    }
}

}  // namespace

QueryConditionLink::QueryConditionLink(uint32_t linkedEntityId, const Property& relationProperty,
                                       bool backlink)
    : QueryCondition(QueryOp::Link),
      linkedEntityId_(linkedEntityId),
      relation_(nullptr),
      relationProperty_(&relationProperty),
      backlink_(backlink) {}

QueryConditionLink::QueryConditionLink(uint32_t linkedEntityId, const Relation& relation,
                                       bool backlink)
    : QueryCondition(QueryOp::Link),
      linkedEntityId_(linkedEntityId),
      relation_(&relation),
      relationProperty_(nullptr),
      backlink_(backlink) {}

QueryConditionLink::~QueryConditionLink() = default;

void QueryConditionLink::setSubQuery(std::unique_ptr<Query> subQuery) {
    subQuery_ = std::move(subQuery);
}

std::unique_ptr<QueryConditionLink> QueryConditionLink::cloneWith(
    QueryBuilder* builder, std::unique_ptr<Query> subQuery) const {
    auto link = relation_ ? std::make_unique<QueryConditionLink>(linkedEntityId_, *relation_,
                                                                 backlink_)
                          : std::make_unique<QueryConditionLink>(linkedEntityId_,
                                                                 *relationProperty_, backlink_);
    link->setBuilder(builder);
    link->setSubQuery(std::move(subQuery));
    return link;
}

std::string QueryConditionLink::describe(uint32_t indent) const {
    CHECK_STATE_AT(69, subQuery_);
    std::string text(indent + 1, '|');
    text += backlink_ ? " Backlink " : " Link ";
    text += subQuery_->entity().name() + " via ";
    text += relation_ ? "standalone " + relation_->text() : relationProperty_->name();
    return text + " with conditions: " + subQuery_->describeParameters(indent + 1);
}

void QueryConditionLink::lookupIds(Cursor& cursor, Ids& ids) const {
    Ids linked;
    subQuery_->findIdsWithoutComparator(cursor.cursorFor(linkedEntityId_), linked, 0);
    if (linked.empty()) return;
    if (relation_) {
        stepThroughRelation(cursor.cursorFor(relation_->sourceEntityId()), linked, ids);
    } else if (backlink_) {
        stepAgainstProperty(cursor.cursorFor(relationProperty_->entityId()), linked, ids);
    } else {
        stepThroughProperty(cursor.cursorFor(relationProperty_->entityId()), linked, ids);
    }
    sortUnique(ids);
}

// The linked objects are the targets of a forward link.
void QueryConditionLink::stepThroughRelation(Cursor& source, const Ids& linked, Ids& ids) const {
    RelationCursor& relationCursor = source.relationCursor(relation_->id());
    for (const uint64_t id : linked) relationCursor.findIds(id, ids, !backlink_);
}

// The linked objects are the targets: the index knows who refers to them.
void QueryConditionLink::stepThroughProperty(Cursor& source, const Ids& linked, Ids& ids) const {
    IndexCursor& indexCursor = source.getIndexCursor(*relationProperty_);
    for (const uint64_t id : linked) indexCursor.findScalarIds64(id, &ids);
}

// The linked objects refer to the IDs. What no object can have, a field may still hold.
void QueryConditionLink::stepAgainstProperty(Cursor& source, const Ids& linked, Ids& ids) const {
    const uint16_t slot = relationProperty_->flatOffset();
    Bytes object;
    for (const uint64_t id : linked) {
        if (!source.get(id, object)) continue;
        const auto target = ObjectTable(object.data(), object.size()).scalar<uint64_t>(slot);
        if (isObjectId(target)) ids.push_back(target);
    }
}

}  // namespace quillmere
