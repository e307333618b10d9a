// Builders of queries, for chained calls without checks in between: failures stay on the builder.

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "capi/arrays.h"
#include "capi/guard.h"
#include "capi/query_handles.h"
#include "core/checks.h"
#include "core/error.h"
#include "query/condition.h"
#include "query/query_builder.h"
#include "schema/entity.h"
#include "schema/property.h"
#include "schema/relation.h"
#include "schema/schema.h"
#include "store/store_activity.h"

using namespace quillmere;

namespace {

// What a builder handle stands for. Handles close in any order, so that a link's node keeps the one
// it links from alive, and with the topmost one all their builders.
struct BuilderNode {
    BuilderNode(StoreRef storeRef, std::unique_ptr<QueryBuilder> top)
        : store(std::move(storeRef)), owned(std::move(top)), engine(*owned),
          entity(engine.entity()) {}
    BuilderNode(std::shared_ptr<BuilderNode> linkedFrom, QueryBuilder& link)
        : store(linkedFrom->store), parent(std::move(linkedFrom)), parentBuilds(parent->builds),
          engine(link), entity(engine.entity()) {}

    // Null at the top, and for a link that went into a query.
    BuilderNode* linkedParent() const {
        return parent && parent->builds == parentBuilds ? parent.get() : nullptr;
    }
    // A build takes the builders of links along, at any depth.
    bool attached() const {
        const BuilderNode* node = this;
        while (const BuilderNode* const next = node->linkedParent()) node = next;
        return !node->parent;
    }
    // Throws if the store has gone, or the builder with a query.
    QueryBuilder& builder() const {
        store.get();
        CHECK_STATE_SHORT_AT(__LINE__, attached(), "builder->builder");
        return engine;
    }
    // The closest node that holds an error: this one, or one that it links from; null if none does.
    const BuilderNode* failed() const noexcept {
        const BuilderNode* node = this;
        while (node && node->errorCode == 0) node = node->linkedParent();
        return node;
    }
    // The first error stays.
    void keepError(qmr_err code, const char* message) {
        for (BuilderNode* node = this; node; node = node->linkedParent()) {
            if (node->errorCode != 0) continue;
            node->errorCode = code;
            node->errorMessage = message;
        }
    }

    const StoreRef store;
    const std::shared_ptr<BuilderNode> parent;   // null at the top
    const uint32_t parentBuilds = 0;             // when this link was made
    const std::unique_ptr<QueryBuilder> owned;   // null for a link
    QueryBuilder& engine;
    const Entity& entity;
    uint32_t builds = 0;
    qmr_qb_cond lastCondition = 0;  // ID of the condition made last; 0 if that failed
    qmr_err errorCode = 0;
    std::string errorMessage;
};

}  // namespace

struct QMR_query_builder {
    std::shared_ptr<BuilderNode> node;
};

namespace {

enum class Keep { CodeAndText, Code };

void keepFailure(BuilderNode& node, qmr_err code, Keep keep) noexcept {
    statusCall([&] {
        if (keep == Keep::Code) return node.keepError(code, "");
        node.lastCondition = 0;
        node.keepError(code, qmr_last_error_message());
    });
}

// Runs the work unless the builder holds an error, which is the result then. A failure is kept.
template <class Work>
qmr_err builderCall(QMR_query_builder* builder, Keep keep, Work&& work) noexcept {
    qmr_err kept = QMR_SUCCESS;
    const qmr_err failure = statusCall([&] {
        CHECK_ARG_NOT_NULL(builder);
        BuilderNode& node = *builder->node;
        if (const BuilderNode* const failed = node.failed()) {
            kept = failed->errorCode;
        } else {
            const RunningQuery running(node.store.activity());
            work(node);
        }
    });
    if (builder && failure != QMR_SUCCESS) keepFailure(*builder->node, failure, keep);
    return kept != QMR_SUCCESS ? kept : failure;
}

// The ID of the condition that `add` adds, or 0.
template <class Add>
qmr_qb_cond addCondition(QMR_query_builder* builder, Add&& add) noexcept {
    qmr_qb_cond id = 0;
    builderCall(builder, Keep::CodeAndText, [&](BuilderNode& node) {
        add(node);
        id = static_cast<qmr_qb_cond>(node.engine.allConditions().size());
        node.lastCondition = id;
    });
    return id;
}

// Null arguments are found by `check`, before anything is looked up.
template <class Check, class Add>
qmr_qb_cond addCheckedCondition(QMR_query_builder* builder, qmr_schema_id propertyId,
                                Check&& check, Add&& add) noexcept {
    return addCondition(builder, [&](BuilderNode& node) {
        check();
        QueryBuilder& engine = node.builder();
        add(engine, engine.entity().propertyById(propertyId));
    });
}

template <class Add>
qmr_qb_cond addPropertyCondition(QMR_query_builder* builder, qmr_schema_id propertyId,
                                 Add&& add) noexcept {
    return addCheckedCondition(builder, propertyId, [] {}, add);
}

template <class Add>
qmr_qb_cond addStringCondition(QMR_query_builder* builder, qmr_schema_id propertyId,
                               const char* value, Add&& add) noexcept {
    return addCheckedCondition(builder, propertyId, [&] { CHECK_ARG_NOT_NULL(value); }, add);
}

template <class Add>
qmr_qb_cond addBytesCondition(QMR_query_builder* builder, qmr_schema_id propertyId,
                              const void* value, size_t size, Add&& add) noexcept {
    return addCheckedCondition(
        builder, propertyId,
        [&] {
            if (size != 0) CHECK_ARG_NOT_NULL(value);
        },
        [&](QueryBuilder& engine, const Property& property) {
            add(engine, property, value ? value : "");
        });
}

template <class Value>
qmr_qb_cond addInSet(QMR_query_builder* builder, qmr_schema_id propertyId, const Value values[],
                     size_t count, bool negate) noexcept {
    return addCheckedCondition(
        builder, propertyId, [&] { CHECK_ARG_NOT_NULL(values); },
        [&](QueryBuilder& engine, const Property& property) {
            engine.in(property, copyValues(values, count), negate);
        });
}

QueryCondition* conditionById(const QueryBuilder& builder, qmr_qb_cond id, size_t index) {
    if (id == 0) throwIllegalArgument("No condition ID on index ", std::to_string(index));
    const auto& conditions = builder.allConditions();
    if (id < 0 || static_cast<size_t>(id) > conditions.size()) {
        throwIllegalArgument("No condition with ID ", int64_t{id});
    }
    return conditions[static_cast<size_t>(id) - 1].get();
}

using Combine = QueryCondition& (QueryBuilder::*)(const std::vector<QueryCondition*>&);

qmr_qb_cond addCombination(QMR_query_builder* builder, const qmr_qb_cond conditions[],
                           size_t count, Combine combine) noexcept {
    return addCondition(builder, [&](BuilderNode& node) {
        CHECK_ARG_NOT_NULL_AT(394, conditions);
        QueryBuilder& engine = node.builder();
        // With more IDs than conditions one comes twice, which fails however many follow.
        count = std::min(count, engine.allConditions().size() + 1);
        std::vector<QueryCondition*> children(count);
        for (size_t i = 0; i < count; ++i) children[i] = conditionById(engine, conditions[i], i);
        (engine.*combine)(children);
    });
}

// The builder of the link that `link` adds; null on failure, which is kept without its text.
template <class Link>
QMR_query_builder* addLink(QMR_query_builder* builder, Link&& link) noexcept {
    QMR_query_builder* handle = nullptr;
    builderCall(builder, Keep::Code, [&](BuilderNode& node) {
        QueryBuilder& engine = node.builder();
        const std::shared_ptr<Schema> schema = node.store.get().requireSchema();
        auto linked = std::make_unique<QMR_query_builder>();
        linked->node = std::make_shared<BuilderNode>(builder->node, link(engine, *schema));
        handle = linked.release();
    });
    return handle;
}

[[noreturn]] void throwNoRelation(const char* text, qmr_schema_id relationId,
                                  const Entity& entity) {
    throwIllegalArgument(text, std::to_string(relationId), " in entity ",
                         std::to_string(entity.id()));
}

const Relation& relationOf(const Entity& entity, qmr_schema_id relationId) {
    const Relation* const relation = entity.findRelationById(relationId);
    if (!relation) throwNoRelation("Relation not found ", relationId, entity);
    return *relation;
}

const Relation& incomingRelationOf(const Entity& entity, qmr_schema_id relationId) {
    for (const Relation* const relation : entity.incomingRelations()) {
        if (relation->id() == relationId) return *relation;
    }
    throwNoRelation("Backlink relation not found ", relationId, entity);
}

}  // namespace

QMR_query_builder* qmr_query_builder(QMR_store* store, qmr_schema_id entity_id) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(store);
        CHECK_STATE(store->store);
        const std::shared_ptr<Schema> schema = store->store->requireSchema();
        const Entity& entity = schema->entityById(entity_id);
        auto builder = std::make_unique<QMR_query_builder>();
        builder->node = std::make_shared<BuilderNode>(
            StoreRef(*store),
            std::make_unique<QueryBuilder>(entity, schema, true, store->store->debugFlags()));
        return builder.release();
    });
}

qmr_err qmr_qb_close(QMR_query_builder* builder) {
    return statusCall([&] { delete builder; });
}

qmr_schema_id qmr_qb_type_id(QMR_query_builder* builder) {
    return numberCall([&] {
        CHECK_ARG_NOT_NULL(builder);
        const StoreRef& store = builder->node->store;
        const RunningQuery running(store.activity());
        store.get();
        return builder->node->entity.id();
    });
}

qmr_err qmr_qb_error_code(QMR_query_builder* builder) {
    return builder ? builder->node->errorCode : QMR_SUCCESS;
}

const char* qmr_qb_error_message(QMR_query_builder* builder) {
    return builder ? builder->node->errorMessage.c_str() : nullptr;
}

// Reports a missing condition also where an error is kept, so it is no builderCall().
qmr_err qmr_qb_param_alias(QMR_query_builder* builder, const char* alias) {
    const qmr_err failure = statusCall([&] {
        CHECK_ARG_NOT_NULL(builder);
        CHECK_ARG_NOT_NULL(alias);
        const BuilderNode& node = *builder->node;
        CHECK_STATE_SHORT_AT(383, node.lastCondition, "builder->lastCondition_");
        QueryCondition* const condition = conditionById(node.builder(), node.lastCondition, 0);
        CHECK_STATE_SHORT_AT(385, condition->withProperty(), "condition.withProperty()");
        static_cast<QueryConditionWithProperty*>(condition)->setAlias(alias);
    });
    if (builder && failure != QMR_SUCCESS) {
        keepFailure(*builder->node, failure, Keep::CodeAndText);
    }
    return failure;
}

qmr_qb_cond qmr_qb_all(QMR_query_builder* builder, const qmr_qb_cond conditions[], size_t count) {
    return addCombination(builder, conditions, count, &QueryBuilder::all);
}

qmr_qb_cond qmr_qb_any(QMR_query_builder* builder, const qmr_qb_cond conditions[], size_t count) {
    return addCombination(builder, conditions, count, &QueryBuilder::any);
}

// --- conditions ----------------------------------------------------------------------------------

qmr_qb_cond qmr_qb_null(QMR_query_builder* builder, qmr_schema_id property_id) {
    return addPropertyCondition(builder, property_id, [&](auto& engine, const auto& property) {
        engine.isNull(property);
    });
}

qmr_qb_cond qmr_qb_not_null(QMR_query_builder* builder, qmr_schema_id property_id) {
    return addPropertyCondition(builder, property_id, [&](auto& engine, const auto& property) {
        engine.notNull(property);
    });
}

qmr_qb_cond qmr_qb_equals_int(QMR_query_builder* builder, qmr_schema_id property_id,
                              int64_t value) {
    return addPropertyCondition(builder, property_id, [&](auto& engine, const auto& property) {
        engine.equal(property, value);
    });
}

qmr_qb_cond qmr_qb_not_equals_int(QMR_query_builder* builder, qmr_schema_id property_id,
                                  int64_t value) {
    return addPropertyCondition(builder, property_id, [&](auto& engine, const auto& property) {
        engine.notEqual(property, value);
    });
}

qmr_qb_cond qmr_qb_greater_than_int(QMR_query_builder* builder, qmr_schema_id property_id,
                                    int64_t value) {
    return addPropertyCondition(builder, property_id, [&](auto& engine, const auto& property) {
        engine.greater(property, value, false);
    });
}

qmr_qb_cond qmr_qb_greater_or_equal_int(QMR_query_builder* builder, qmr_schema_id property_id,
                                        int64_t value) {
    return addPropertyCondition(builder, property_id, [&](auto& engine, const auto& property) {
        engine.greater(property, value, true);
    });
}

qmr_qb_cond qmr_qb_less_than_int(QMR_query_builder* builder, qmr_schema_id property_id,
                                 int64_t value) {
    return addPropertyCondition(builder, property_id, [&](auto& engine, const auto& property) {
        engine.less(property, value, false);
    });
}

qmr_qb_cond qmr_qb_less_or_equal_int(QMR_query_builder* builder, qmr_schema_id property_id,
                                     int64_t value) {
    return addPropertyCondition(builder, property_id, [&](auto& engine, const auto& property) {
        engine.less(property, value, true);
    });
}

qmr_qb_cond qmr_qb_between_2ints(QMR_query_builder* builder, qmr_schema_id property_id,
                                 int64_t value_a, int64_t value_b) {
    return addPropertyCondition(builder, property_id, [&](auto& engine, const auto& property) {
        engine.between(property, value_a, value_b);
    });
}

qmr_qb_cond qmr_qb_in_int32s(QMR_query_builder* builder, qmr_schema_id property_id,
                             const int32_t values[], size_t count) {
    return addInSet(builder, property_id, values, count, false);
}

qmr_qb_cond qmr_qb_not_in_int32s(QMR_query_builder* builder, qmr_schema_id property_id,
                                 const int32_t values[], size_t count) {
    return addInSet(builder, property_id, values, count, true);
}

qmr_qb_cond qmr_qb_in_int64s(QMR_query_builder* builder, qmr_schema_id property_id,
                             const int64_t values[], size_t count) {
    return addInSet(builder, property_id, values, count, false);
}

qmr_qb_cond qmr_qb_not_in_int64s(QMR_query_builder* builder, qmr_schema_id property_id,
                                 const int64_t values[], size_t count) {
    return addInSet(builder, property_id, values, count, true);
}

qmr_qb_cond qmr_qb_greater_than_double(QMR_query_builder* builder, qmr_schema_id property_id,
                                       double value) {
    return addPropertyCondition(builder, property_id, [&](auto& engine, const auto& property) {
        engine.greater(property, value, false);
    });
}

qmr_qb_cond qmr_qb_greater_or_equal_double(QMR_query_builder* builder, qmr_schema_id property_id,
                                           double value) {
    return addPropertyCondition(builder, property_id, [&](auto& engine, const auto& property) {
        engine.greater(property, value, true);
    });
}

qmr_qb_cond qmr_qb_less_than_double(QMR_query_builder* builder, qmr_schema_id property_id,
                                    double value) {
    return addPropertyCondition(builder, property_id, [&](auto& engine, const auto& property) {
        engine.less(property, value, false);
    });
}

qmr_qb_cond qmr_qb_less_or_equal_double(QMR_query_builder* builder, qmr_schema_id property_id,
                                        double value) {
    return addPropertyCondition(builder, property_id, [&](auto& engine, const auto& property) {
        engine.less(property, value, true);
    });
}

qmr_qb_cond qmr_qb_between_2doubles(QMR_query_builder* builder, qmr_schema_id property_id,
                                    double value_a, double value_b) {
    return addPropertyCondition(builder, property_id, [&](auto& engine, const auto& property) {
        engine.between(property, value_a, value_b);
    });
}

qmr_qb_cond qmr_qb_equals_string(QMR_query_builder* builder, qmr_schema_id property_id,
                                 const char* value, bool case_sensitive) {
    return addStringCondition(builder, property_id, value, [&](auto& engine, const auto& property) {
        engine.equal(property, value, case_sensitive);
    });
}

qmr_qb_cond qmr_qb_not_equals_string(QMR_query_builder* builder, qmr_schema_id property_id,
                                     const char* value, bool case_sensitive) {
    return addStringCondition(builder, property_id, value, [&](auto& engine, const auto& property) {
        engine.notEqual(property, value, case_sensitive);
    });
}

qmr_qb_cond qmr_qb_contains_string(QMR_query_builder* builder, qmr_schema_id property_id,
                                   const char* value, bool case_sensitive) {
    return addStringCondition(builder, property_id, value, [&](auto& engine, const auto& property) {
        engine.contains(property, value, case_sensitive);
    });
}

qmr_qb_cond qmr_qb_starts_with_string(QMR_query_builder* builder, qmr_schema_id property_id,
                                      const char* value, bool case_sensitive) {
    return addStringCondition(builder, property_id, value, [&](auto& engine, const auto& property) {
        engine.startsWith(property, value, case_sensitive);
    });
}

qmr_qb_cond qmr_qb_ends_with_string(QMR_query_builder* builder, qmr_schema_id property_id,
                                    const char* value, bool case_sensitive) {
    return addStringCondition(builder, property_id, value, [&](auto& engine, const auto& property) {
        engine.endsWith(property, value, case_sensitive);
    });
}

qmr_qb_cond qmr_qb_greater_than_string(QMR_query_builder* builder, qmr_schema_id property_id,
                                       const char* value, bool case_sensitive) {
    return addStringCondition(builder, property_id, value, [&](auto& engine, const auto& property) {
        engine.greater(property, value, case_sensitive, false);
    });
}

qmr_qb_cond qmr_qb_greater_or_equal_string(QMR_query_builder* builder, qmr_schema_id property_id,
                                           const char* value, bool case_sensitive) {
    return addStringCondition(builder, property_id, value, [&](auto& engine, const auto& property) {
        engine.greater(property, value, case_sensitive, true);
    });
}

qmr_qb_cond qmr_qb_less_than_string(QMR_query_builder* builder, qmr_schema_id property_id,
                                    const char* value, bool case_sensitive) {
    return addStringCondition(builder, property_id, value, [&](auto& engine, const auto& property) {
        engine.less(property, value, case_sensitive, false);
    });
}

qmr_qb_cond qmr_qb_less_or_equal_string(QMR_query_builder* builder, qmr_schema_id property_id,
                                        const char* value, bool case_sensitive) {
    return addStringCondition(builder, property_id, value, [&](auto& engine, const auto& property) {
        engine.less(property, value, case_sensitive, true);
    });
}

qmr_qb_cond qmr_qb_any_equals_string(QMR_query_builder* builder, qmr_schema_id property_id,
                                     const char* value, bool case_sensitive) {
    return addStringCondition(builder, property_id, value, [&](auto& engine, const auto& property) {
        engine.contains(property, value, case_sensitive);
    });
}

qmr_qb_cond qmr_qb_contains_element_string(QMR_query_builder* builder, qmr_schema_id property_id,
                                           const char* value, bool case_sensitive) {
    return addStringCondition(builder, property_id, value, [&](auto& engine, const auto& property) {
        engine.containsElement(property, value, case_sensitive);
    });
}

qmr_qb_cond qmr_qb_contains_key_value_string(QMR_query_builder* builder, qmr_schema_id property_id,
                                             const char* key, const char* value,
                                             bool case_sensitive) {
    return addCheckedCondition(
        builder, property_id,
        [&] {
            CHECK_ARG_NOT_NULL(key);
            CHECK_ARG_NOT_NULL(value);
        },
        [&](auto& engine, const auto& property) {
            engine.containsKeyValue(property, key, value, case_sensitive);
        });
}

qmr_qb_cond qmr_qb_in_strings(QMR_query_builder* builder, qmr_schema_id property_id,
                              const char* const values[], size_t count, bool case_sensitive) {
    return addCheckedCondition(
        builder, property_id, [&] { CHECK_ARG_NOT_NULL(values); },
        [&](auto& engine, const auto& property) {
            engine.in(property, viewStrings(values, count), case_sensitive);
        });
}

qmr_qb_cond qmr_qb_equals_bytes(QMR_query_builder* builder, qmr_schema_id property_id,
                                const void* value, size_t size) {
    return addBytesCondition(
        builder, property_id, value, size,
        [&](auto& engine, const auto& property, const void* data) {
            engine.equalBytes(property, data, size);
        });
}

qmr_qb_cond qmr_qb_greater_than_bytes(QMR_query_builder* builder, qmr_schema_id property_id,
                                      const void* value, size_t size) {
    return addBytesCondition(
        builder, property_id, value, size,
        [&](auto& engine, const auto& property, const void* data) {
            engine.greaterBytes(property, data, size, false);
        });
}

qmr_qb_cond qmr_qb_greater_or_equal_bytes(QMR_query_builder* builder, qmr_schema_id property_id,
                                          const void* value, size_t size) {
    return addBytesCondition(
        builder, property_id, value, size,
        [&](auto& engine, const auto& property, const void* data) {
            engine.greaterBytes(property, data, size, true);
        });
}

qmr_qb_cond qmr_qb_less_than_bytes(QMR_query_builder* builder, qmr_schema_id property_id,
                                   const void* value, size_t size) {
    return addBytesCondition(
        builder, property_id, value, size,
        [&](auto& engine, const auto& property, const void* data) {
            engine.lessBytes(property, data, size, false);
        });
}

qmr_qb_cond qmr_qb_less_or_equal_bytes(QMR_query_builder* builder, qmr_schema_id property_id,
                                       const void* value, size_t size) {
    return addBytesCondition(
        builder, property_id, value, size,
        [&](auto& engine, const auto& property, const void* data) {
            engine.lessBytes(property, data, size, true);
        });
}

qmr_qb_cond qmr_qb_relation_count_property(QMR_query_builder* builder,
                                           qmr_schema_id relation_entity_id,
                                           qmr_schema_id relation_property_id,
                                           int32_t relation_count) {
    return addCondition(builder, [&](BuilderNode& node) {
        QueryBuilder& engine = node.builder();
        const std::shared_ptr<Schema> schema = node.store.get().requireSchema();
        const Entity& entity = schema->entityById(relation_entity_id);
        engine.relationCount(entity.propertyById(relation_property_id), relation_count);
    });
}

// --- order and links -----------------------------------------------------------------------------

qmr_err qmr_qb_order(QMR_query_builder* builder, qmr_schema_id property_id, uint32_t flags) {
    return builderCall(builder, Keep::CodeAndText, [&](BuilderNode& node) {
        QueryBuilder& engine = node.builder();
        engine.order(engine.entity().propertyById(property_id), flags);
    });
}

QMR_query_builder* qmr_qb_link_property(QMR_query_builder* builder, qmr_schema_id property_id) {
    return addLink(builder, [&](QueryBuilder& engine, const Schema& schema) -> QueryBuilder& {
        const Property& property = engine.entity().propertyById(property_id);
        const Entity* const target = schema.findEntityById(property.targetEntityId());
        return engine.link(target, &property, false);
    });
}

QMR_query_builder* qmr_qb_backlink_property(QMR_query_builder* builder,
                                            qmr_schema_id source_entity_id,
                                            qmr_schema_id source_property_id) {
    return addLink(builder, [&](QueryBuilder& engine, const Schema& schema) -> QueryBuilder& {
        const Entity& source = schema.entityById(source_entity_id);
        const Property& property = source.propertyById(source_property_id);
        if (property.targetEntityId() != engine.entity().id()) {
            throwIllegalArgument(property.text(), " does not target ", engine.entity().text());
        }
        return engine.link(&source, &property, true);
    });
}

QMR_query_builder* qmr_qb_link_standalone(QMR_query_builder* builder, qmr_schema_id relation_id) {
    return addLink(builder, [&](QueryBuilder& engine, const Schema& schema) -> QueryBuilder& {
        const Relation& relation = relationOf(engine.entity(), relation_id);
        return engine.link(schema.findEntityById(relation.targetEntityId()), &relation, false);
    });
}

QMR_query_builder* qmr_qb_backlink_standalone(QMR_query_builder* builder,
                                              qmr_schema_id relation_id) {
    return addLink(builder, [&](QueryBuilder& engine, const Schema& schema) -> QueryBuilder& {
        const Relation& relation = incomingRelationOf(engine.entity(), relation_id);
        return engine.link(schema.findEntityById(relation.sourceEntityId()), &relation, true);
    });
}

QMR_query_builder* qmr_qb_link_time(QMR_query_builder* builder, qmr_schema_id linked_entity_id,
                                    qmr_schema_id begin_property_id,
                                    qmr_schema_id end_property_id) {
    return addLink(builder, [&](QueryBuilder&, const Schema& schema) -> QueryBuilder& {
        const Entity& entity = schema.entityById(linked_entity_id);
        entity.propertyById(begin_property_id);
        entity.propertyById(end_property_id);
        throwWith<TimeSeriesException>(
            "Time series functionality is not available in this library edition. "
            "Please use Quillmere TS instead.");
    });
}

// --- the query -----------------------------------------------------------------------------------

QMR_query* qmr_query(QMR_query_builder* builder) {
    if (const BuilderNode* const failed = builder ? builder->node->failed() : nullptr) {
        setLastError(failed->errorCode, 0, failed->errorMessage.c_str());
        return nullptr;
    }
    QMR_query* handle = nullptr;
    builderCall(builder, Keep::CodeAndText, [&](BuilderNode& node) {
        QueryBuilder& engine = node.builder();
        node.lastCondition = 0;
        ++node.builds;  // also a failed build leaves an empty builder
        handle = new QMR_query(engine.build(), node.store);
    });
    return handle;
}
