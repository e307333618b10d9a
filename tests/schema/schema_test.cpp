#include "schema/schema.h"

#include <gtest/gtest.h>

#include "core/error.h"
#include "schema/catalog.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

std::shared_ptr<Property> makeProperty(uint32_t id, std::string name,
                                       PropertyType type = PropertyType::Int, uint32_t flags = 0) {
    return std::make_shared<Property>(id, 1000 + id, std::move(name), type, flags);
}

std::shared_ptr<Entity> makeEntity(uint32_t id, const std::string& name) {
    auto entity = std::make_shared<Entity>(id, 10 + id, name);
    entity->addProperty(makeProperty(1, "id", PropertyType::Long, kPropertyId));
    entity->setLastPropertyId({1, 1001});
    return entity;
}

// Source has a to-one and a standalone relation to Target.
struct LinkedSchema {
    LinkedSchema() {
        source = makeEntity(1, "Source");
        auto toTarget = makeProperty(2, "target", PropertyType::Relation, kPropertyIndexed);
        toTarget->setTargetEntityName("Target");
        toTarget->setIndexIds(1, 11);
        toTarget->setEntity(1);
        source->addProperty(toTarget);
        source->addRelation(std::make_shared<Relation>(1, 21, 1, 2));
        target = makeEntity(2, "Target");
        for (const auto& entity : {source, target}) {
            entity->finish();
            schema.addEntity(entity);
        }
        schema.link();
    }

    std::shared_ptr<Entity> source, target;
    Schema schema;
};

TEST(Entity, NeedsANameAndAProperty) {
    const auto finishFailure = [](Entity entity) {
        return messageOf<SchemaException>([&] { entity.finish(); });
    };
    EXPECT_EQ(finishFailure(Entity(1, 11, "")), "An entity has no name");
    EXPECT_EQ(finishFailure(Entity(1, 11, "E")), "Entity must have at least one property: E");
}

TEST(Entity, RenamesRemovesAndReordersProperties) {
    const auto entity = makeEntity(1, "E");
    const auto a = makeProperty(2, "a");
    const auto b = makeProperty(3, "b");
    entity->addProperty(a);
    entity->addProperty(b);
    EXPECT_EQ(messageOf<SchemaException>([&] { entity->renameProperty(*a, ""); }),
              "Property cannot be renamed: new name is empty for a");
    EXPECT_EQ(messageOf<SchemaException>([&] { entity->renameProperty(*a, "b"); }),
              "Property cannot be renamed: another property already exists with the name b");
    entity->renameProperty(*a, "c");
    EXPECT_EQ(entity->findPropertyByName("c"), a.get());
    EXPECT_EQ(entity->findPropertyByName("a"), nullptr);

    entity->removeProperty(*a);
    EXPECT_EQ(entity->findPropertyById(2), nullptr);
    EXPECT_EQ(messageOf<IllegalStateException>([&] { entity->removeProperty(*a); }),
              "State condition failed in removeProperty:550: erasedByName");
    EXPECT_EQ(messageOf<SchemaException>([&] { entity->propertyById(2); }),
              "Property ID 2 not found in entity E");

    Entity reversed(1, 11, "E");
    reversed.addProperty(b);
    reversed.addProperty(entity->properties()[0]);
    EXPECT_TRUE(entity->reorderProperties(reversed));
    EXPECT_EQ(entity->properties()[0], b);
    EXPECT_FALSE(entity->reorderProperties(reversed));
    reversed.addProperty(a);
    EXPECT_EQ(messageOf<SchemaException>([&] { entity->reorderProperties(reversed); }),
              "Cannot reorder properties - did not find property with ID 2");
}

TEST(Entity, AssignsThePlacesOfPropertiesInObjects) {
    Catalog catalog;
    catalog.lastEntityId = 1;
    const auto entity = makeEntity(1, "E");
    entity->addProperty(makeProperty(0x7FFE, "last"));
    entity->assignIds(catalog, 1);
    EXPECT_EQ(entity->findPropertyByFlatOffset(4)->name(), "id");
    EXPECT_EQ(entity->findPropertyByFlatOffset(0xFFFE)->name(), "last");
    EXPECT_EQ(entity->schemaId(), 1u);
    EXPECT_EQ(entity->metaVersion(), 1u);

    entity->addProperty(makeProperty(0x7FFF, "beyond"));
    EXPECT_EQ(messageOf<IllegalStateException>([&] { entity->assignIds(catalog, 1); }),
              "State condition failed in assignIdsForProperty:508: "
              "flatOffset <= std::numeric_limits<uint16_t>::max()");
    catalog.lastEntityId = 0;
    EXPECT_EQ(messageOf<IllegalStateException>([&] { entity->assignIds(catalog, 1); }),
              "State condition failed in assignIds:486: id_ <= catalog.lastEntityId()");
}

TEST(Schema, LinksEntities) {
    LinkedSchema linked;
    const Property& toTarget = linked.source->propertyById(2);
    EXPECT_EQ(toTarget.targetEntityId(), 2u);
    ASSERT_EQ(linked.target->incomingToOne().size(), 1u);
    EXPECT_EQ(linked.target->incomingToOne()[0], &toTarget);
    ASSERT_EQ(linked.target->incomingRelations().size(), 1u);
    EXPECT_EQ(linked.target->incomingRelations()[0]->text(), "Relation 1 (from entity 1 to 2)");
    EXPECT_EQ(&linked.schema.indexById(1).property(), &toTarget);
    EXPECT_EQ(linked.schema.findRelationById(1)->targetEntityId(), 2u);
    EXPECT_EQ(messageOf<SchemaException>([&] { linked.schema.entityById(9); }),
              "Entity type ID not found in schema: 9");
    EXPECT_EQ(messageOf<SchemaException>([&] { linked.schema.indexById(9); }),
              "No index found for ID 9");
    EXPECT_EQ(messageOf<SchemaException>([&] { linked.target->expirationTimeProperty(); }),
              "Entity has no expiration time property: Target");
}

TEST(Schema, LinksToEntitiesThatAreThereOnly) {
    const auto entity = makeEntity(1, "E");
    const auto toOne = makeProperty(2, "r", PropertyType::Relation);
    entity->addProperty(toOne);
    const auto linkFailure = [&] {
        Schema schema;
        schema.addEntity(entity);
        return messageOf<SchemaException>([&] { schema.link(); });
    };
    EXPECT_EQ(linkFailure(), "Has no target entity ID: r");
    toOne->setTargetEntityId(9);
    EXPECT_EQ(linkFailure(), "Property r references unknown entity 9");
}

TEST(Schema, RenamesItsOwnEntitiesToFreeNames) {
    LinkedSchema linked;
    EXPECT_EQ(messageOf<SchemaException>(
                  [&] { linked.schema.renameEntity(*linked.source, "Target"); }),
              "Cannot rename entity Source to Target: entity already exists");
    Entity stranger(1, 11, "Source");
    EXPECT_EQ(messageOf<SchemaException>([&] { linked.schema.renameEntity(stranger, "New"); }),
              "Entity Source does not match given entity");
    linked.schema.renameEntity(*linked.source, "New");
    EXPECT_EQ(linked.schema.findEntityByName("New"), linked.source.get());
    EXPECT_EQ(linked.schema.findEntityByName("Source"), nullptr);
}

TEST(Schema, ForgetsARemovedEntityButKeepsItAlive) {
    LinkedSchema linked;
    Entity& source = *linked.source;
    linked.source.reset();
    linked.schema.removeEntity(source);
    EXPECT_TRUE(linked.target->incomingToOne().empty());
    EXPECT_TRUE(linked.target->incomingRelations().empty());
    EXPECT_EQ(linked.schema.findIndexById(1), nullptr);
    EXPECT_EQ(linked.schema.findRelationById(1), nullptr);
    EXPECT_EQ(source.findPropertyByName("target")->id(), 2u);
    EXPECT_EQ(messageOf<SchemaException>([&] { linked.schema.removeEntity(source); }),
              "Entity Source not found in schema");
}

}  // namespace
}  // namespace quillmere
