#include "query/query.h"

#include "query/condition.h"
#include "query/link_condition.h"
#include "schema/schema.h"

namespace quillmere {
namespace {

// A property that is gone is told by its ID.
std::string propertyName(const Schema& schema, uint32_t entityId, uint32_t propertyId) {
    const Entity* const entity = schema.findEntityById(entityId);
    const Property* const property = entity ? entity->findPropertyById(propertyId) : nullptr;
    return property ? property->name() : std::to_string(propertyId);
}

}  // namespace

std::string Query::describe() const {
    const std::shared_ptr<const Schema> schema = schema_.lock();
    const bool entityGone = hadSchema_ && !schema;
    std::string text = "Query for entity ";
    text += entityGone ? "<deleted entity type>" : entity_->name();
    text += " with " + std::to_string(allConditions_.size()) + " conditions";
    if (schema) {
        const char* separator = " with properties ";
        for (const auto& [key, condition] : conditionsByProperty_) {
            const auto entityId = static_cast<uint32_t>(key >> 32);
            text += separator + propertyName(*schema, entityId, static_cast<uint32_t>(key));
            separator = ", ";
        }
    }
    if (!links_.empty()) text += " with " + std::to_string(links_.size()) + " links";
    return text;
}

std::string Query::describeParameters(uint32_t indent) const {
    checkUsable();
    std::string text = root_->describe(indent);
    for (const auto& link : links_) text += '\n' + link->describe(indent);
    return text;
}

}  // namespace quillmere
