#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/bytes.h"
#include "schema/index.h"
#include "schema/property.h"
#include "schema/relation.h"
#include "schema/schema.h"
#include "schema/schema_host.h"

namespace quillmere {

// A schema partition in memory, with a record of what happened to it. Records lie at addresses that
// fit no number, as they may in a real store.
class MemorySchemaHost : public SchemaHost {
public:
    bool readOnly() const override { return readOnly_; }

    bool readElement(uint64_t elementId, Bytes& out) override {
        const auto found = elements.find(elementId);
        if (found == elements.end()) return false;
        out.setView(found->second.data() + 1, found->second.size() - 1);
        return true;
    }
    void visitElements(uint64_t fromElementId, const ElementVisitor& visitor) override {
        for (auto at = elements.lower_bound(fromElementId); at != elements.end(); ++at) {
            if (!visitor(at->first, Bytes(at->second.data() + 1, at->second.size() - 1))) return;
        }
    }
    void writeElement(uint64_t elementId, const void* data, size_t size) override {
        elements[elementId] = "x" + std::string(static_cast<const char*>(data), size);
        ++writes;
    }
    bool removeElement(uint64_t elementId) override { return elements.erase(elementId) == 1; }

    std::shared_ptr<Schema> schema() const override { return schema_; }
    void setSchema(std::shared_ptr<Schema> schema) override { schema_ = std::move(schema); }

    void removeAllObjects(const Entity& entity) override {
        removals.push_back("objects of " + entity.name());
    }
    void removeIndexData(const Index& index) override {
        removals.push_back("index " + std::to_string(index.id()));
    }
    void rebuildIndex(const Entity& entity, const Property& property) override {
        rebuilds.push_back(entity.name() + "." + property.name());
    }
    void removeRelationData(const Relation& relation) override {
        removals.push_back("relation " + std::to_string(relation.id()));
    }

    // The bytes of an element, without the byte in front that misaligns them.
    Bytes element(uint64_t id) const {
        const std::string& stored = elements.at(id);
        return Bytes::copyOf(stored.data() + 1, stored.size() - 1);
    }

    std::map<uint64_t, std::string> elements;
    std::vector<std::string> removals;
    std::vector<std::string> rebuilds;
    int writes = 0;
    bool readOnly_ = false;

private:
    std::shared_ptr<Schema> schema_;
};

}  // namespace quillmere
