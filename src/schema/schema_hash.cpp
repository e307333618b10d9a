#include "schema/schema_hash.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "core/bytes_writer.h"
#include "core/checks.h"
#include "schema/catalog.h"
#include "schema/schema.h"
#include "schema/siphash.h"

namespace quillmere {
namespace {

constexpr SipHashKey kKey = {0x51, 0x75, 0x69, 0x6c, 0x6c, 0x6d, 0x65, 0x72,
                             0x65, 0x20, 0x73, 0x63, 0x68, 0x65, 0x6d, 0x61};

template <class T>
std::vector<const T*> sortedById(const std::vector<std::shared_ptr<T>>& elements) {
    std::vector<const T*> sorted;
    sorted.reserve(elements.size());
    for (const auto& element : elements) sorted.push_back(element.get());
    std::ranges::sort(sorted, {}, &T::id);
    return sorted;
}

// Collects the byte sequence of one entity, or of what stands above entities.
class HashInput {
public:
    explicit HashInput(const SchemaHashOptions& options) : options_(options) {}

    void addNumber(uint32_t number) { writer_.writeU32(number); }
    void addHash(const SipHash128& hash) { writer_.writeBytes(hash.data(), hash.size()); }

    void addEntity(const Entity& entity) {
        addIdUid(entity.id(), entity.uid());
        if (options_.names) addText(entity.name());
        addNumber(entity.flags() & ~options_.entityFlagsOut);
        if (options_.names) addText(entity.externalName());
        for (const Property* property : sortedById(entity.properties())) addProperty(*property);
        if (options_.lastPropertyId) addNumber(entity.lastPropertyId().id);
        addNumber(static_cast<uint32_t>(entity.relations().size()));
        for (const Relation* relation : sortedById(entity.relations())) {
            addIdUid(relation->id(), relation->uid());
            addNumber(relation->targetEntityId());
        }
        if (options_.indexIds) addIndexes(entity);
    }

    SipHash128 finish() {
        writer_.finish();
        return sipHash128(kKey, bytes_.span());
    }

private:
    void addIdUid(uint32_t id, uint64_t uid) {
        writer_.writeU32(id);
        writer_.writeU64(uid);
    }
    void addText(std::string_view text) { writer_.writeBytes(text.data(), text.size()); }

    void addProperty(const Property& property) {
        addIdUid(property.id(), property.uid());
        if (options_.names) addText(property.name());
        addNumber(static_cast<uint32_t>(property.type()));
        addNumber(property.flags() & ~options_.propertyFlagsOut);
        addNumber(property.targetEntityId());
        if (options_.indexIds) addNumber(property.indexId());
        if (!options_.secondaryNames) return;
        addText(property.secondaryName());
        addText(property.virtualTarget());
    }

    void addIndexes(const Entity& entity) {
        addNumber(static_cast<uint32_t>(entity.indexes().size()));
        for (const Index* index : sortedById(entity.indexes())) {
            addIdUid(index->id(), index->uid());
            addNumber(index->flags() & ~options_.indexFlagsOut);
            addNumber(index->property().id());
        }
    }

    const SchemaHashOptions& options_;
    Bytes bytes_;
    BytesWriter writer_{bytes_};
};

SipHash128 hash(const Schema& schema, const SchemaHashOptions& options) {
    std::vector<uint8_t> bytesEntityHashes;
    for (const Entity* entity : sortedById(schema.entities())) {
        HashInput input(options);
        input.addEntity(*entity);
        const SipHash128 entityHash = input.finish();
        bytesEntityHashes.insert(bytesEntityHashes.end(), entityHash.begin(), entityHash.end());
    }
    const size_t entityHashesSize = schema.entities().size() * sizeof(SipHash128);
    CHECK_STATE_AT(54, bytesEntityHashes.size() == entityHashesSize);
    const size_t entityContentToHashSize = bytesEntityHashes.size();
    CHECK_STATE_AT(61, entityContentToHashSize > 0);
    return sipHash128(kKey, bytesEntityHashes);
}

}  // namespace

Bytes schemaHash(const Catalog& catalog, const SchemaHashOptions& options) {
    HashInput input(options);
    input.addHash(hash(*catalog.defaultSchema, options));
    if (options.lastIds) {
        input.addNumber(catalog.lastEntityId);
        input.addNumber(catalog.lastIndexId);
        input.addNumber(catalog.lastRelationId);
        input.addNumber(catalog.fourthLastId);
    }
    const SipHash128 result = input.finish();
    return Bytes::copyOf(result.data(), result.size());
}

}  // namespace quillmere
