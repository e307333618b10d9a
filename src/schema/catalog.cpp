#include "schema/catalog.h"

#include <chrono>
#include <random>
#include <string>

#include "core/error.h"
#include "core/flatbuffer_check.h"
#include "kv/partition.h"
#include "schema/catalog_format.h"
#include "schema/flat_table.h"
#include "schema/model_reader.h"
#include "schema/schema.h"

namespace quillmere {

using namespace catalog_format;
using flatbuffers::FlatBufferBuilder;
using flatbuffers::Table;
using flatbuffers::Verifier;

namespace {

bool verifySchemaTable(Verifier& verifier, const Table& table) {
    return verifyText(verifier, table, kSchemaName) &&
           verifyScalar<uint32_t>(verifier, table, kSchemaId) &&
           verifyScalar<uint64_t>(verifier, table, kSchemaUserVersion);
}

bool verifyCatalog(Verifier& verifier, const Table& table) {
    for (const CatalogField field : {kCatalogRandomValue, kCatalogCreationTime,
                                     kCatalogUpdateTime}) {
        if (!verifyScalar<uint64_t>(verifier, table, field)) return false;
    }
    for (const CatalogField field :
         {kCatalogVersionField, kCatalogMinVersionField, kCatalogLastEntityId, kCatalogCarried,
          kCatalogLastIndexId, kCatalogFourthLastId, kCatalogLastRelationId}) {
        if (!verifyScalar<uint32_t>(verifier, table, field)) return false;
    }
    return verifySubTables(verifier, table, kCatalogSchemas, verifySchemaTable) &&
           verifyBytes(verifier, table, kCatalogBindingHash) &&
           verifyBytes(verifier, table, kCatalogFullHash) &&
           verifyBytes(verifier, table, kCatalogBaseHash);
}

void checkVersions(const Catalog& catalog) {
    if (catalog.minVersion > Catalog::kSupportedMetaVersion) {
        throwSchema("Please update, this file requires a minimum meta schema version of ",
                    std::to_string(catalog.minVersion));
    }
    if (catalog.version == 1) {
        throwSchema("Upgrading is not supported from meta schema version ",
                    std::to_string(catalog.version));
    }
    if (catalog.version == 0 || catalog.minVersion == 0) {
        throw DbFileCorruptException("Catalog: no meta schema version(s) available");
    }
}

void checkLastIds(const Catalog& catalog) {
    if (!isPartitionId(catalog.lastEntityId)) {
        throw DbFileCorruptException("Schema catalog contains invalid entity ID");
    }
    if (catalog.lastIndexId != 0 && !isPartitionId(catalog.lastIndexId)) {
        throw DbFileCorruptException("Schema catalog contains invalid index ID");
    }
}

void parseSchemas(const Table& table, Catalog& catalog) {
    bool any = false;
    forEachTable(table, kCatalogSchemas, [&](const Table& schema) {
        any = true;
        const std::string name(readTextField(schema, kSchemaName));
        const uint32_t id = readScalar<uint32_t>(schema, kSchemaId);
        if (name.empty()) {
            throw DbFileCorruptException("Schema read from catalog has no name, ID: " +
                                         std::to_string(id));
        }
        if (name != Schema::kDefaultName) return;
        if (catalog.defaultSchema) throwIllegalState("Schemas already populated");
        catalog.defaultSchema = std::make_shared<Schema>(id, name);
        catalog.userVersion = readScalar<uint64_t>(schema, kSchemaUserVersion);
    });
    if (!any) throw DbFileCorruptException("No schema available");
    if (!catalog.defaultSchema) throw DbFileCorruptException("No default schema available");
}

Bytes parseHash(const Table& table, uint32_t field, const char* name) {
    const std::span<const uint8_t> hash = readBytesField(table, field);
    if (!hash.data()) return {};
    if (hash.size() != kHashSize) {
        throw DbFileCorruptException(std::string("Unexpected ") + name +
                                     " hash size: " + std::to_string(hash.size()));
    }
    return Bytes::copyOf(hash.data(), hash.size());
}

uint64_t drawRandomValue() {
    std::random_device device;
    const uint64_t high = device();
    return high << 32 | device();
}

flatbuffers::Offset<flatbuffers::Vector<uint8_t>> createHash(FlatBufferBuilder& builder,
                                                             const Bytes& hash) {
    return hash.empty() ? 0 : builder.CreateVector(hash.data(), hash.size());
}

TableOffset buildSchema(FlatBufferBuilder& builder, const Catalog& catalog) {
    const Schema* schema = catalog.defaultSchema.get();
    if (!schema || schema->name().empty()) throwSchema("Incomplete schema data");
    const auto name = builder.CreateString(schema->name());
    TableWriter table(builder);
    table.offset(kSchemaName, name);
    table.scalar(kSchemaId, schema->id());
    table.scalar(kSchemaUserVersion, catalog.userVersion);
    return table.finish();
}

}  // namespace

uint64_t currentTimeNanos() {
    const auto time = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(time).count());
}

Catalog Catalog::create(const Model& model) {
    Catalog catalog;
    catalog.randomValue = drawRandomValue();
    catalog.creationTimeNanos = catalog.updateTimeNanos = currentTimeNanos();
    catalog.lastEntityId = model.lastEntityId.id;
    catalog.lastIndexId = model.lastIndexId.id;
    catalog.fourthLastId = model.fourthLastId.id;
    catalog.lastRelationId = model.lastRelationId.id;
    catalog.userVersion = model.userVersion;
    catalog.defaultSchema = std::make_shared<Schema>();
    return catalog;
}

Catalog Catalog::parse(const Bytes& record) {
    const Bytes aligned = alignedForTables(record);
    if (!verifyFlatBuffer(aligned.data(), aligned.size(), verifyCatalog)) {
        throw DbFileCorruptException("Schema catalog could not be verified");
    }
    const Table& table = rootTable(aligned.data());
    Catalog catalog;
    catalog.version = readScalar<uint32_t>(table, kCatalogVersionField);
    catalog.minVersion = readScalar<uint32_t>(table, kCatalogMinVersionField);
    checkVersions(catalog);
    catalog.randomValue = readScalar<uint64_t>(table, kCatalogRandomValue);
    catalog.creationTimeNanos = readScalar<uint64_t>(table, kCatalogCreationTime);
    catalog.updateTimeNanos = readScalar<uint64_t>(table, kCatalogUpdateTime);
    catalog.lastEntityId = readScalar<uint32_t>(table, kCatalogLastEntityId);
    catalog.lastIndexId = readScalar<uint32_t>(table, kCatalogLastIndexId);
    catalog.fourthLastId = readScalar<uint32_t>(table, kCatalogFourthLastId);
    catalog.lastRelationId = readScalar<uint32_t>(table, kCatalogLastRelationId);
    checkLastIds(catalog);
    parseSchemas(table, catalog);
    catalog.bindingHash = parseHash(table, kCatalogBindingHash, "binding");
    catalog.fullHash = parseHash(table, kCatalogFullHash, "full");
    catalog.baseHash = parseHash(table, kCatalogBaseHash, "base");
    return catalog;
}

Bytes Catalog::build() const {
    FlatBufferBuilder builder;
    const auto schemas = createTables(builder, {buildSchema(builder, *this)});
    const auto binding = createHash(builder, bindingHash);
    const auto full = createHash(builder, fullHash);
    const auto base = createHash(builder, baseHash);
    TableWriter table(builder);
    table.offset(kCatalogSchemas, schemas);
    table.scalar(kCatalogVersionField, kCatalogVersion);
    table.scalar(kCatalogMinVersionField, kCatalogMinVersion);
    table.scalar(kCatalogRandomValue, randomValue);
    table.scalar(kCatalogCreationTime, creationTimeNanos);
    table.scalar(kCatalogUpdateTime, updateTimeNanos);
    table.scalar(kCatalogLastEntityId, lastEntityId);
    table.scalar(kCatalogLastIndexId, lastIndexId);
    table.scalar(kCatalogFourthLastId, fourthLastId);
    table.scalar(kCatalogLastRelationId, lastRelationId);
    table.offset(kCatalogBindingHash, binding);
    table.offset(kCatalogFullHash, full);
    table.offset(kCatalogBaseHash, base);
    return finishedBytes(builder, table.finish());
}

std::shared_ptr<Schema> Catalog::renewDefaultSchema() {
    defaultSchema = std::make_shared<Schema>(defaultSchema->id(), defaultSchema->name());
    return defaultSchema;
}

}  // namespace quillmere
