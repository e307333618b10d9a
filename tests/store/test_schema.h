#pragma once

#include <memory>
#include <string>
#include <utility>

#include "schema/schema.h"
#include "support/object.h"

namespace quillmere {

// A schema written down in a few lines. Each entity has an ID property with ID 1; index IDs are 100
// times the entity's plus the property's.
class TestSchema {
public:
    TestSchema() : schema_(std::make_shared<Schema>(1)) {}

    TestSchema& entity(uint32_t id, const std::string& name, uint32_t flags = 0,
                       uint32_t idFlags = kPropertyIdSelfAssignable) {
        finishEntity();
        entity_ = std::make_shared<Entity>(id, 100 + id, name);
        entity_->setFlags(flags);
        return property(1, "id", PropertyType::Long, kPropertyId | idFlags);
    }
    TestSchema& property(uint32_t id, const std::string& name, PropertyType type,
                         uint32_t flags = 0, uint32_t target = 0) {
        auto property =
            std::make_shared<Property>(id, 1000 * entity_->id() + id, name, type, flags);
        property->setEntity(entity_->id());
        property->setFlatOffset(objectSlot(id));
        if (target != 0) property->setTargetEntityId(target);
        property->finish();
        if (property->isIndexed()) property->setIndexIds(indexId(entity_->id(), id), 50000 + id);
        entity_->addProperty(property);
        return *this;
    }
    TestSchema& toOne(uint32_t id, const std::string& name, uint32_t target, uint32_t flags = 0) {
        return property(id, name, PropertyType::Relation,
                        kPropertyIndexed | kPropertyIndexSkipZero | flags, target);
    }
    TestSchema& relation(uint32_t id, uint32_t target) {
        entity_->addRelation(std::make_shared<Relation>(id, 70000 + id, entity_->id(), target));
        return *this;
    }
    std::shared_ptr<Schema> build() {
        finishEntity();
        schema_->link();
        return schema_;
    }

    static uint32_t indexId(uint32_t entityId, uint32_t propertyId) {
        return 100 * entityId + propertyId;
    }

private:
    void finishEntity() {
        if (!entity_) return;
        entity_->finish();
        schema_->addEntity(std::exchange(entity_, nullptr));
    }

    std::shared_ptr<Schema> schema_;
    std::shared_ptr<Entity> entity_;
};

}  // namespace quillmere
