#pragma once

// Recomputes what the indexes and relations of a store must hold, and compares it with what they do
// hold. It reads objects and makes keys on its own, so that it shares no fault with the library.

#include <flatbuffers/flatbuffers.h>
#include <xxhash.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "kv/partition.h"
#include "kv/partition_cursor.h"
#include "schema/schema.h"
#include "store/cursor.h"
#include "store/object_store.h"
#include "store/transaction.h"

namespace quillmere {

class IndexChecker {
public:
    explicit IndexChecker(Transaction& tx) : tx_(tx) {}

    // An object whose field is put as 0 (or as an empty string) and later without the field keeps
    // its entry, also when it is removed. Tests that do so tolerate these entries.
    IndexChecker& tolerateKeptZeros() {
        tolerateKeptZeros_ = true;
        return *this;
    }
    // Links may be put between objects that do not exist. Tests that never do so ask for more.
    IndexChecker& requireLinkedObjects() {
        requireLinkedObjects_ = true;
        return *this;
    }

    // One text per fault, none if all is well.
    std::vector<std::string> faults() {
        faults_.clear();
        const auto schema = tx_.store().requireSchema();
        for (const auto& entity : schema->entities()) readIds(*entity);
        for (const auto& entity : schema->entities()) {
            for (const auto& index : entity->indexes()) {
                if (index->type() != IndexType::Hnsw) checkIndex(*entity, *index);
            }
            for (const auto& relation : entity->relations()) checkRelation(*relation);
        }
        return faults_;
    }

    // All keys between two prefixes, in order, as bytes. Values that are not as small as they have
    // to be are faults.
    std::vector<std::string> keys(uint32_t firstPrefix, uint32_t lastPrefix) {
        PartitionCursor::Config config;
        config.firstPrefix = firstPrefix;
        config.lastPrefix = lastPrefix;
        PartitionCursor cursor(tx_, config);
        std::vector<std::string> found;
        Bytes value;
        for (bool on = cursor.first(value); on; on = cursor.next(value)) {
            found.emplace_back(cursor.key().text());
            const bool zeros = value.text().find_first_not_of('\0') == std::string_view::npos;
            if (value.size() > 3 || !zeros || (cursor.key().size() + value.size()) % 4 != 0) {
                faults_.push_back("bad value at " + hex(found.back()));
            }
        }
        return found;
    }
    std::vector<std::string> indexKeys(uint32_t indexId) {
        const uint32_t prefix = partitionPrefix(PartitionType::Index, indexId);
        return keys(prefix, prefix);
    }
    std::vector<std::string> relationKeys(uint32_t relationId) {
        const uint32_t prefix = partitionPrefix(PartitionType::Relation, relationId);
        return keys(prefix, prefix + 3);
    }

    static std::string hex(const std::string& bytes) {
        return Bytes(bytes.data(), bytes.size()).toHex(bytes.size());
    }

private:
    static std::string big(uint64_t number, size_t size) {
        std::string bytes;
        while (size-- > 0) bytes.push_back(static_cast<char>(number >> (8 * size)));
        return bytes;
    }
    static std::string shortestId(uint64_t id) { return big(id, id > 0xFFFFFFFF ? 8 : 4); }

    // The value part of the key and the ID, empty if there is no entry.
    static std::string expectedEntry(const Index& index, uint64_t id, const uint8_t* object) {
        const auto* table = flatbuffers::GetRoot<flatbuffers::Table>(object);
        const uint16_t slot = index.property().flatOffset();
        if (!table->GetOptionalFieldOffset(slot)) return {};
        if (index.property().type() == PropertyType::String) {
            return stringEntry(index.type(), id,
                               table->GetPointer<const flatbuffers::String*>(slot)->str());
        }
        const size_t size = propertyTypeSize(index.property().type());
        uint64_t value = 0;
        std::memcpy(&value, reinterpret_cast<const uint8_t*>(table) +
                                table->GetOptionalFieldOffset(slot), size);
        return big(value, size == 8 ? 8 : 4) + shortestId(id);
    }
    static std::string stringEntry(IndexType type, uint64_t id, const std::string& text) {
        if (type == IndexType::Hash) {
            return big(XXH32(text.data(), text.size(), 0), 4) + shortestId(id);
        }
        if (type == IndexType::Hash64) {
            return big(XXH64(text.data(), text.size(), 0), 8) + shortestId(id);
        }
        return std::string(text.c_str(), text.size() + 1).substr(0, 479) + big(id, 8);
    }
    static bool isZeroEntry(const Index& index, const std::string& key) {
        if (index.property().type() != PropertyType::String) {
            const size_t size = propertyTypeSize(index.property().type()) == 8 ? 8 : 4;
            return key.substr(4, size) == std::string(size, '\0');
        }
        const std::string empty = stringEntry(index.type(), 1, "");
        const size_t size = empty.size() - (index.type() == IndexType::Value ? 8 : 4);
        return key.substr(4, size) == empty.substr(0, size);
    }

    void readIds(const Entity& entity) {
        std::set<uint64_t>& ids = ids_[entity.id()];
        ids.clear();
        const auto cursor = makeCursor(entity);
        for (uint64_t id = cursor->seekFirstId(); id != 0; id = cursor->seekNextId()) {
            ids.insert(id);
        }
    }
    std::unique_ptr<Cursor> makeCursor(const Entity& entity) {
        return tx_.createKeyValueCursor(partitionPrefix(PartitionType::Entity, entity.id()));
    }

    void checkIndex(const Entity& entity, const Index& index) {
        const std::string prefix = big(partitionPrefix(PartitionType::Index, index.id()), 4);
        std::set<std::string> expected;
        const auto cursor = makeCursor(entity);
        Bytes object;
        for (bool on = cursor->first(object); on; on = cursor->next(object)) {
            const std::string entry = expectedEntry(index, cursor->currentId(), object.data());
            if (!entry.empty()) expected.insert(prefix + entry);
        }
        const std::string name = entity.name() + "." + index.property().name();
        for (const std::string& key : indexKeys(index.id())) {
            if (expected.erase(key) != 0) continue;
            if (tolerateKeptZeros_ && isZeroEntry(index, key)) continue;
            faults_.push_back("orphan in " + name + ": " + hex(key));
        }
        for (const std::string& key : expected) {
            faults_.push_back("missing in " + name + ": " + hex(key));
        }
    }

    static uint64_t idAt(const std::string& bytes) {
        uint64_t id = 0;
        for (const char c : bytes) id = id << 8 | static_cast<uint8_t>(c);
        return id;
    }

    // Each link must be there in both directions, and where the width of its IDs puts it.
    void checkRelation(const Relation& relation) {
        const uint32_t prefix = partitionPrefix(PartitionType::Relation, relation.id());
        std::set<std::string> unmatched;
        for (const std::string& key : relationKeys(relation.id())) {
            const uint32_t sub = static_cast<uint32_t>(idAt(key.substr(0, 4))) - prefix;
            const size_t firstSize = sub % 2 == 0 ? 4 : 8;
            const uint64_t first = idAt(key.substr(4, firstSize));
            const uint64_t second = idAt(key.substr(4 + firstSize));
            const bool reverse = sub >= 2;
            if (key != linkKey(prefix, first, second, reverse)) {
                faults_.push_back("malformed link " + hex(key));
            }
            const uint64_t source = reverse ? second : first;
            const uint64_t target = reverse ? first : second;
            if (requireLinkedObjects_ && (!ids_[relation.sourceEntityId()].contains(source) ||
                                          !ids_[relation.targetEntityId()].contains(target))) {
                faults_.push_back("link without object: " + hex(key));
            }
            const std::string twin = linkKey(prefix, second, first, !reverse);
            if (unmatched.erase(key) == 0) unmatched.insert(twin);
        }
        for (const std::string& key : unmatched) faults_.push_back("half a link: no " + hex(key));
    }
    static std::string linkKey(uint32_t prefix, uint64_t first, uint64_t second, bool reverse) {
        const uint32_t sub = (reverse ? 2u : 0u) + (first > 0xFFFFFFFF ? 1u : 0u);
        return big(prefix + sub, 4) + shortestId(first) + shortestId(second);
    }

    Transaction& tx_;
    bool tolerateKeptZeros_ = false;
    bool requireLinkedObjects_ = false;
    std::map<uint32_t, std::set<uint64_t>> ids_;
    std::vector<std::string> faults_;
};

}  // namespace quillmere
