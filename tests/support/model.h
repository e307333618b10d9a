#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>

#include "quillmere/quillmere.h"

namespace quillmere {

// A data model, written down fluently. UIDs follow from the IDs unless given, and the last IDs are
// filled in, so that a test tells only what it is about.
class TestModel {
public:
    TestModel() : model_(qmr_model()) {}
    ~TestModel() { qmr_model_free(model_); }
    TestModel(const TestModel&) = delete;
    TestModel& operator=(const TestModel&) = delete;

    TestModel& entity(const char* name, uint32_t id, uint32_t flags = 0) {
        finishEntity();
        entityId_ = id;
        lastEntityId_ = std::max(lastEntityId_, id);
        lastPropertyId_ = 0;
        qmr_model_entity(model_, name, id, entityUid(id));
        if (flags) qmr_model_entity_flags(model_, flags);
        return *this;
    }
    TestModel& property(const char* name, uint32_t type, uint32_t id, uint32_t flags = 0) {
        lastPropertyId_ = std::max(lastPropertyId_, id);
        qmr_model_property(model_, name, type, id, propertyUid(id));
        if (flags) qmr_model_property_flags(model_, flags);
        return *this;
    }
    // The "id" property, with property ID 1.
    TestModel& idProperty(uint32_t extraFlags = 0) {
        return property("id", QMRPropertyType_Long, 1, QMRPropertyFlags_ID | extraFlags);
    }
    TestModel& indexed(const char* name, uint32_t type, uint32_t id, uint32_t indexId,
                       uint32_t flags = 0) {
        property(name, type, id, QMRPropertyFlags_INDEXED | flags);
        qmr_model_property_index_id(model_, indexId, indexUid(indexId));
        return *this;
    }
    TestModel& toOne(const char* name, const char* target, uint32_t id, uint32_t indexId) {
        property(name, QMRPropertyType_Relation, id,
                 QMRPropertyFlags_INDEXED | QMRPropertyFlags_INDEX_SKIP_ZERO);
        qmr_model_property_relation(model_, target, indexId, indexUid(indexId));
        return *this;
    }
    TestModel& relation(uint32_t id, uint32_t targetEntityId) {
        lastRelationId_ = std::max(lastRelationId_, id);
        qmr_model_relation(model_, id, relationUid(id), targetEntityId, entityUid(targetEntityId));
        return *this;
    }
    // For elements that the model had once.
    TestModel& lastPropertyId(uint32_t id) {
        lastPropertyId_ = std::max(lastPropertyId_, id);
        return *this;
    }
    TestModel& lastEntityId(uint32_t id) {
        lastEntityId_ = std::max(lastEntityId_, id);
        return *this;
    }

    // The finished model, for qmr_opt_model() or qmr_model_free().
    QMR_model* release() {
        finishEntity();
        qmr_model_last_entity_id(model_, lastEntityId_, entityUid(lastEntityId_));
        if (lastIndexId_) qmr_model_last_index_id(model_, lastIndexId_, indexUid(lastIndexId_));
        if (lastRelationId_) {
            qmr_model_last_relation_id(model_, lastRelationId_, relationUid(lastRelationId_));
        }
        return std::exchange(model_, nullptr);
    }

private:
    static uint64_t entityUid(uint32_t id) { return 1000 + id; }
    static uint64_t relationUid(uint32_t id) { return 500 + id; }
    uint64_t indexUid(uint32_t id) {
        lastIndexId_ = std::max(lastIndexId_, id);
        return 700 + id;
    }
    uint64_t propertyUid(uint32_t id) const { return entityUid(entityId_) * 1000 + id; }

    void finishEntity() {
        if (entityId_ == 0) return;
        qmr_model_entity_last_property_id(model_, lastPropertyId_, propertyUid(lastPropertyId_));
    }

    QMR_model* model_;
    uint32_t entityId_ = 0;
    uint32_t lastEntityId_ = 0;
    uint32_t lastPropertyId_ = 0;
    uint32_t lastIndexId_ = 0;
    uint32_t lastRelationId_ = 0;
};

}  // namespace quillmere
