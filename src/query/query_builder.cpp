#include "query/query_builder.h"

#include <limits>
#include <string>
#include <unordered_set>
#include <utility>

#include "core/checks.h"
#include "core/error.h"
#include "core/log.h"
#include "core/store_options.h"
#include "query/bytes_condition.h"
#include "query/combination_condition.h"
#include "query/comparator.h"
#include "query/flex_condition.h"
#include "query/in_set_condition.h"
#include "query/link_condition.h"
#include "query/null_condition.h"
#include "query/property_rules.h"
#include "query/query.h"
#include "query/relation_count_condition.h"
#include "query/scalar_condition.h"
#include "query/string_condition.h"
#include "query/string_set_condition.h"
#include "schema/entity.h"
#include "schema/property.h"
#include "schema/relation.h"

namespace quillmere {
namespace {

bool isFloat(const Property& property) {
    return isFloatScalar(property.type()) || isFloatVector(property.type());
}

bool holdsText(const Property& property) {
    return property.type() == PropertyType::String || property.type() == PropertyType::ByteVector;
}

QueryOp greaterOp(bool orEqual) { return orEqual ? QueryOp::GreaterOrEqual : QueryOp::Greater; }
QueryOp lessOp(bool orEqual) { return orEqual ? QueryOp::LessOrEqual : QueryOp::Less; }

std::unique_ptr<QueryCondition> makeTextCondition(const Property& property, QueryOp op,
                                                  std::string_view value, bool caseSensitive) {
    if (!holdsText(property)) throwNotComparable(property, PropertyType::String);
    return makeStringCondition(property, op, value, caseSensitive);
}

// An integer on a float property counts as a double.
std::unique_ptr<QueryCondition> makeIntegerOrder(const Property& property, QueryOp op,
                                                 int64_t value) {
    if (isFloat(property)) return makeScalarCondition(property, op, static_cast<double>(value));
    if (property.type() == PropertyType::Bool) throwNotIntegerScalar(property);
    return makeScalarCondition(property, op, value);
}

void checkLinkTarget(const char* mismatch, const Entity& target, uint32_t expectedId,
                     bool backlink) {
    if (target.id() == expectedId) return;
    throwIllegalArgument(mismatch, target.name(), " vs. ", std::to_string(expectedId),
                         backlink ? " (backlink)" : "");
}

}  // namespace

QueryBuilder::QueryBuilder(const Entity& entity, std::weak_ptr<const Schema> schema, bool hasSchema,
                           uint32_t debugFlags)
    : entity_(entity), schema_(std::move(schema)), hasSchema_(hasSchema),
      logQueries_((debugFlags & kDebugLogQueries) != 0),
      logParameters_((debugFlags & kDebugLogQueryParameters) != 0) {}

QueryBuilder::~QueryBuilder() = default;

// --- conditions ---------------------------------------------------------------------------------

QueryCondition& QueryBuilder::addCondition(std::unique_ptr<QueryCondition> condition) {
    CHECK_ARG_NOT_NULL_AT(485, condition);
    if (condition->withProperty()) {
        const auto& property =
            static_cast<const QueryConditionWithProperty&>(*condition).property();
        if (property.entityId() != entity_.id()) {
            throwIllegalArgument(property.text(), " is not part of ", entity_.text());
        }
    }
    CHECK_STATE_AT(493, allConditions_.size() < std::numeric_limits<int>::max());
    allConditions_.push_back(std::move(condition));
    QueryCondition& added = *allConditions_.back();
    composableConditions_.push_back(&added);
    added.setBuilder(this);
    return added;
}

QueryCondition& QueryBuilder::combine(QueryOp op, const std::vector<QueryCondition*>& conditions) {
    std::unordered_set<const QueryCondition*> left(composableConditions_.begin(),
                                                   composableConditions_.end());
    for (const QueryCondition* const condition : conditions) {
        CHECK_ARG_AT(74, condition);
        if (left.erase(condition) == 0) throwIllegalState("Condition unavailable in builder");
    }
    QueryCondition& combination =
        addCondition(std::make_unique<QueryConditionCombination>(op, conditions));
    std::erase_if(composableConditions_, [&](const QueryCondition* condition) {
        return condition != &combination && !left.contains(condition);
    });
    return combination;
}

QueryCondition& QueryBuilder::all(const std::vector<QueryCondition*>& conditions) {
    return combine(QueryOp::AllOf, conditions);
}

QueryCondition& QueryBuilder::any(const std::vector<QueryCondition*>& conditions) {
    return combine(QueryOp::AnyOf, conditions);
}

QueryCondition& QueryBuilder::isNull(const Property& property) {
    return addCondition(makeNullCondition(property, QueryOp::IsNull));
}

QueryCondition& QueryBuilder::notNull(const Property& property) {
    return addCondition(makeNullCondition(property, QueryOp::IsNotNull));
}

QueryCondition& QueryBuilder::equal(const Property& property, int64_t value) {
    if (isFloat(property)) {
        throwIllegalArgument("The query condition 'equal' is unsupported for floating point types, "
                             "please use 'between' instead.",
                             property.text());
    }
    return addCondition(makeScalarCondition(property, QueryOp::Equal, value));
}

QueryCondition& QueryBuilder::notEqual(const Property& property, int64_t value) {
    if (isFloat(property)) {
        throwIllegalArgument("The query condition 'notEqual' is unsupported for floating point "
                             "types, please use a combination of 'less' and 'greater' instead.",
                             property.text());
    }
    return addCondition(makeScalarCondition(property, QueryOp::NotEqual, value));
}

QueryCondition& QueryBuilder::greater(const Property& property, int64_t value, bool orEqual) {
    return addCondition(makeIntegerOrder(property, greaterOp(orEqual), value));
}

QueryCondition& QueryBuilder::less(const Property& property, int64_t value, bool orEqual) {
    return addCondition(makeIntegerOrder(property, lessOp(orEqual), value));
}

QueryCondition& QueryBuilder::greater(const Property& property, double value, bool orEqual) {
    return addCondition(makeScalarCondition(property, greaterOp(orEqual), value));
}

QueryCondition& QueryBuilder::less(const Property& property, double value, bool orEqual) {
    return addCondition(makeScalarCondition(property, lessOp(orEqual), value));
}

QueryCondition& QueryBuilder::between(const Property& property, int64_t a, int64_t b) {
    if (isFloatScalar(property.type())) {
        return between(property, static_cast<double>(a), static_cast<double>(b));
    }
    if (!isIntegerScalar(property.type()) || property.type() == PropertyType::Bool) {
        throwNotIntegerScalar(property);
    }
    return addCondition(makeBetweenCondition(property, a, b));
}

QueryCondition& QueryBuilder::between(const Property& property, double a, double b) {
    if (!isFloatScalar(property.type())) throwNotFloatScalar(property);
    return addCondition(makeBetweenCondition(property, a, b));
}

QueryCondition& QueryBuilder::in(const Property& property, const std::vector<int32_t>& values,
                                 bool negate) {
    requireType(property, PropertyType::Int);
    return addCondition(makeInSetCondition(property, values, negate));
}

QueryCondition& QueryBuilder::in(const Property& property, const std::vector<int64_t>& values,
                                 bool negate) {
    if (!isDateType(property.type()) && !property.isRelation()) {
        requireType(property, PropertyType::Long);
    }
    return addCondition(makeInSetCondition(property, values, negate));
}

QueryCondition& QueryBuilder::equal(const Property& property, std::string_view value,
                                    bool caseSensitive) {
    if (property.type() == PropertyType::Flex) {
        return addCondition(makeFlexEqualCondition(property, value, caseSensitive));
    }
    return addCondition(makeTextCondition(property, QueryOp::Equal, value, caseSensitive));
}

QueryCondition& QueryBuilder::notEqual(const Property& property, std::string_view value,
                                       bool caseSensitive) {
    return addCondition(makeTextCondition(property, QueryOp::NotEqual, value, caseSensitive));
}

QueryCondition& QueryBuilder::greater(const Property& property, std::string_view value,
                                      bool caseSensitive, bool orEqual) {
    return addCondition(makeTextCondition(property, greaterOp(orEqual), value, caseSensitive));
}

QueryCondition& QueryBuilder::less(const Property& property, std::string_view value,
                                   bool caseSensitive, bool orEqual) {
    return addCondition(makeTextCondition(property, lessOp(orEqual), value, caseSensitive));
}

QueryCondition& QueryBuilder::startsWith(const Property& property, std::string_view value,
                                         bool caseSensitive) {
    return addCondition(makeTextCondition(property, QueryOp::StartsWith, value, caseSensitive));
}

QueryCondition& QueryBuilder::endsWith(const Property& property, std::string_view value,
                                       bool caseSensitive) {
    return addCondition(makeTextCondition(property, QueryOp::EndsWith, value, caseSensitive));
}

QueryCondition& QueryBuilder::contains(const Property& property, std::string_view value,
                                       bool caseSensitive) {
    if (property.type() == PropertyType::StringVector) {
        logLine("%s [INFO ] Please use the \"contains element\" condition instead for property "
                "\"%s\"; the plain \"contains\"condition is deprecated for string containers and "
                "will be removed in a future version\n",
                logTimestamp(), property.name().c_str());
        return containsElement(property, value, caseSensitive);
    }
    if (!holdsText(property)) {
        throwIllegalArgument("Property type is neither a string nor array of strings: ",
                             propertyTypeName(property.type()));
    }
    return addCondition(makeStringCondition(property, QueryOp::Contains, value, caseSensitive));
}

QueryCondition& QueryBuilder::containsElement(const Property& property, std::string_view value,
                                              bool caseSensitive) {
    switch (property.type()) {
        case PropertyType::StringVector:
            return addCondition(makeStringVectorCondition(property, value, caseSensitive));
        case PropertyType::Flex:
            return addCondition(makeFlexContainsCondition(property, value, caseSensitive));
        default:
            throwIllegalArgument(
                "Property type is not a container type that can contain a string: ",
                propertyTypeName(property.type()));
    }
}

QueryCondition& QueryBuilder::containsKeyValue(const Property& property, std::string_view key,
                                               std::string_view value, bool caseSensitive) {
    requireType(property, PropertyType::Flex);
    return addCondition(makeFlexKeyValueCondition(property, key, value, caseSensitive));
}

QueryCondition& QueryBuilder::in(const Property& property,
                                 const std::vector<std::string_view>& values, bool caseSensitive) {
    if (!holdsText(property)) throwUnexpectedType(property, PropertyType::String);
    return addCondition(makeStringSetCondition(property, values, caseSensitive));
}

QueryCondition& QueryBuilder::equalBytes(const Property& property, const void* data, size_t size) {
    requireType(property, PropertyType::ByteVector);
    return addCondition(makeBytesCondition(property, QueryOp::Equal, data, size));
}

QueryCondition& QueryBuilder::lessBytes(const Property& property, const void* data, size_t size,
                                        bool orEqual) {
    requireType(property, PropertyType::ByteVector);
    return addCondition(makeBytesCondition(property, lessOp(orEqual), data, size));
}

QueryCondition& QueryBuilder::greaterBytes(const Property& property, const void* data, size_t size,
                                           bool orEqual) {
    requireType(property, PropertyType::ByteVector);
    return addCondition(makeBytesCondition(property, greaterOp(orEqual), data, size));
}

QueryCondition& QueryBuilder::relationCount(const Property& property, int32_t count) {
    return addCondition(makeRelationCountCondition(entity_, property, count));
}

// --- order and links ----------------------------------------------------------------------------

void QueryBuilder::order(const Property& property, uint32_t flags) {
    const uint32_t unknown = flags & ~uint32_t{kOrderAllFlags};
    if (unknown != 0) throwIllegalArgument("Unknown order flags: ", int64_t{unknown});
    orders_.push_back({&property, flags});
}

QueryBuilder& QueryBuilder::link(const Entity* targetEntity, const Property* relationProperty,
                                 bool backlink) {
    CHECK_ARG_NOT_NULL_AT(574, targetEntity);
    CHECK_ARG_NOT_NULL_AT(574, relationProperty);
    checkLinkTarget("Target entity mismatch with relation property: ", *targetEntity,
                    backlink ? relationProperty->entityId() : relationProperty->targetEntityId(),
                    backlink);
    return addLink(*targetEntity, std::make_unique<QueryConditionLink>(
                                      targetEntity->id(), *relationProperty, backlink));
}

QueryBuilder& QueryBuilder::link(const Entity* targetEntity, const Relation* relation,
                                 bool backlink) {
    CHECK_ARG_NOT_NULL_AT(589, targetEntity);
    CHECK_ARG_NOT_NULL_AT(589, relation);
    checkLinkTarget("Target entity mismatch with relation: ", *targetEntity,
                    backlink ? relation->sourceEntityId() : relation->targetEntityId(), backlink);
    return addLink(*targetEntity, std::make_unique<QueryConditionLink>(targetEntity->id(),
                                                                       *relation, backlink));
}

QueryBuilder& QueryBuilder::addLink(const Entity& targetEntity,
                                    std::unique_ptr<QueryConditionLink> link) {
    constexpr uint32_t kNoLogging = 0;
    link->setBuilder(this);
    subQueryBuilders_.push_back(
        std::make_unique<QueryBuilder>(targetEntity, schema_, hasSchema_, kNoLogging));
    links_.push_back(std::move(link));
    return *subQueryBuilders_.back();
}

// --- building -----------------------------------------------------------------------------------

std::shared_ptr<const Comparator> QueryBuilder::chainComparators() const {
    std::shared_ptr<const Comparator> chain;
    for (auto order = orders_.rbegin(); order != orders_.rend(); ++order) {
        chain = makeComparator(*order->property, order->flags, std::move(chain));
    }
    return chain;
}

// Gives the root.
QueryCondition& QueryBuilder::prepareConditionsforQuery() {
    if (composableConditions_.size() > 1) all(std::vector(composableConditions_));
    if (composableConditions_.empty()) addCondition(std::make_unique<QueryConditionTrue>());
    CHECK_STATE_AT(516, composableConditions_.size() == 1);
    for (const auto& condition : allConditions_) condition->setBuilder(nullptr);
    return *composableConditions_.front();
}

// Gives every condition away for good: after a failure nothing is left that is half a query.
void QueryBuilder::clear() noexcept {
    composableConditions_.clear();
    allConditions_.clear();
    links_.clear();
    subQueryBuilders_.clear();
    orders_.clear();
    logQueries_ = false;
    logParameters_ = false;
}

std::unique_ptr<Query> QueryBuilder::build() {
    Query::Definition query;
    query.comparator = chainComparators();

    const auto emptyAtExit = [](QueryBuilder* builder) { builder->clear(); };
    const std::unique_ptr<QueryBuilder, decltype(emptyAtExit)> handOver(this);
    query.entity = &entity_;
    query.schema = schema_;
    query.hadSchema = hasSchema_;
    query.root = &prepareConditionsforQuery();
    CHECK_STATE_AT(528, subQueryBuilders_.size() == links_.size());
    for (size_t i = 0; i < links_.size(); ++i) {
        links_[i]->setSubQuery(subQueryBuilders_[i]->build());
        links_[i]->setBuilder(nullptr);
    }
    query.conditions = std::move(allConditions_);
    query.links = std::move(links_);
    query.logQueries = logQueries_;
    query.logParameters = logParameters_;
    return std::make_unique<Query>(std::move(query));
}

}  // namespace quillmere
