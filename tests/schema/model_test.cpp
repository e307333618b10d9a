// Model bytes: what the builder writes and the reader takes.

#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "core/error.h"
#include "core/flatbuffer_check.h"
#include "model_table.h"
#include "schema/model_builder.h"
#include "schema/model_reader.h"
#include "schema/schema.h"
#include "support/expect_throw.h"
#include "support/seed.h"

namespace quillmere {
namespace {

using flatbuffers::Table;
using Tables = flatbuffers::Vector<flatbuffers::Offset<Table>>;

Bytes bytesOf(ModelBuilder& builder) {
    builder.finish();
    return Bytes::copyOf(builder.data(), builder.size());
}

void addSmallEntity(ModelBuilder& builder) {
    builder.entity("E", 1, 11);
    builder.entityLastPropertyId(1, 12);
    builder.property("id", PropertyType::Long, 1, 12);
    builder.propertyFlags(kPropertyId);
}

// An IdUid struct of a table, by literal vtable offset.
IdUid idUidAt(const Table& table, uint16_t voffset) {
    const auto* at = table.GetStruct<const uint8_t*>(voffset);
    if (!at) return {};
    EXPECT_EQ(loadLittle<uint32_t>(at + 4), 0u);
    return {loadLittle<uint32_t>(at), loadLittle<uint64_t>(at + 8)};
}

std::string textAt(const Table& table, uint16_t voffset) {
    const auto* text = table.GetPointer<const flatbuffers::String*>(voffset);
    return text ? text->str() : "";
}

TEST(ModelBuilder, WritesTheFieldsAtTheirPlaces) {
    ModelBuilder builder;
    addSmallEntity(builder);
    builder.entityFlags(2);
    builder.entityExternalName("ext");
    builder.entityLastPropertyId(3, 14);
    builder.property("vector", PropertyType::FloatVector, 2, 13);
    builder.propertyFlags(kPropertyIndexed);
    builder.propertyIndexId(1, 15);
    builder.propertySecondaryName("second");
    builder.hnswDimensions(3);
    builder.hnswFlags(0xFF);
    builder.hnswDistanceType(VectorDistanceType::Cosine);
    builder.hnswVectorCacheHintSizeKb(7);
    builder.property("other", PropertyType::Relation, 3, 14);
    builder.propertyRelation("Target", 2, 16);
    builder.propertyVirtualTarget("virtual");
    builder.relation(1, 17, 2, 18);
    builder.lastEntityId(2, 18);
    builder.lastIndexId(2, 16);
    builder.lastRelationId(1, 17);
    const Bytes bytes = bytesOf(builder);

    const Table& model = rootTable(bytes.data());
    EXPECT_EQ(model.GetField<uint32_t>(4, 0), 2u);
    EXPECT_FALSE(textAt(model, 6).empty());
    EXPECT_EQ(model.GetField<uint64_t>(8, 0), 1u);
    EXPECT_EQ(idUidAt(model, 12), (IdUid{2, 18}));
    EXPECT_EQ(idUidAt(model, 14), (IdUid{2, 16}));
    EXPECT_EQ(idUidAt(model, 18), (IdUid{1, 17}));
    EXPECT_FALSE(model.CheckField(16) || model.CheckField(20));

    const Table& entity = *model.GetPointer<const Tables*>(10)->Get(0);
    EXPECT_EQ(idUidAt(entity, 4), (IdUid{1, 11}));
    EXPECT_EQ(textAt(entity, 6), "E");
    EXPECT_EQ(idUidAt(entity, 10), (IdUid{3, 14}));
    EXPECT_EQ(entity.GetField<uint32_t>(14, 0), 2u);
    EXPECT_EQ(textAt(entity, 16), "ext");
    const Table& relation = *entity.GetPointer<const Tables*>(12)->Get(0);
    EXPECT_EQ(idUidAt(relation, 4), (IdUid{1, 17}));
    EXPECT_EQ(idUidAt(relation, 8), (IdUid{2, 18}));

    const auto& properties = *entity.GetPointer<const Tables*>(8);
    ASSERT_EQ(properties.size(), 3u);
    EXPECT_EQ(properties.Get(0)->GetField<uint16_t>(8, 0), 6u);
    EXPECT_EQ(properties.Get(0)->GetField<uint32_t>(10, 0), 1u);
    EXPECT_FALSE(properties.Get(0)->CheckField(12));
    EXPECT_EQ(textAt(*properties.Get(2), 14), "Target");
    EXPECT_EQ(textAt(*properties.Get(2), 16), "virtual");
    const Table& vector = *properties.Get(1);
    EXPECT_EQ(idUidAt(vector, 4), (IdUid{2, 13}));
    EXPECT_EQ(idUidAt(vector, 12), (IdUid{1, 15}));
    EXPECT_EQ(textAt(vector, 18), "second");
    const Table& hnsw = *vector.GetPointer<const Table*>(22);
    EXPECT_EQ(hnsw.GetField<uint32_t>(4, 0), 3u);
    EXPECT_FALSE(hnsw.CheckField(6) || hnsw.CheckField(8)) << "not set";
    EXPECT_EQ(hnsw.GetField<uint32_t>(10, 0), 0xFu);
    EXPECT_EQ(hnsw.GetField<uint16_t>(12, 0), 2u);
    EXPECT_EQ(hnsw.GetField<float>(14, 0), 1.0f);
    EXPECT_EQ(hnsw.GetField<uint64_t>(16, 0), 7u);
}

TEST(ModelBuilder, GivesItsBytesOnceAndOnlyWhenFinished) {
    ModelBuilder builder;
    const auto stateFailure = [](auto&& action) {
        return messageOf<IllegalStateException>(action);
    };
    EXPECT_EQ(stateFailure([&] { builder.data(); }),
              "State condition failed in buffer:76: finished_");
    EXPECT_EQ(stateFailure([&] { builder.size(); }),
              "State condition failed in size:81: finished_");
    addSmallEntity(builder);
    EXPECT_THROW(builder.hnswDimensions(uint64_t{1} << 32), NumericOverflowException);
    builder.finish();
    EXPECT_EQ(stateFailure([&] { builder.entity("F", 2, 12); }),
              "State condition failed in entity:13: !finished_");
    EXPECT_EQ(stateFailure([&] { builder.finish(); }),
              "State condition failed in checkFinishEntity:28: !finished_");
}

TEST(ModelReader, ReadsWhatTheBuilderWrote) {
    ModelBuilder builder;
    addSmallEntity(builder);
    builder.entityLastPropertyId(2, 13);
    builder.property("vector", PropertyType::FloatVector, 2, 13);
    builder.propertyFlags(kPropertyIndexed);
    builder.propertyIndexId(1, 15);
    builder.hnswIndexingSearchCount(55);
    builder.hnswFlags(kHnswDebugLogs);
    builder.hnswVectorCacheHintSizeKb(9);
    builder.lastIndexId(1, 15);
    builder.lastEntityId(1, 11);
    const auto model = readModel(bytesOf(builder));
    ASSERT_TRUE(model);
    EXPECT_EQ(model->lastEntityId, (IdUid{1, 11}));
    EXPECT_EQ(model->lastIndexId, (IdUid{1, 15}));
    EXPECT_TRUE(model->lastRelationId.empty());
    EXPECT_EQ(model->userVersion, 1u);
    EXPECT_FALSE(model->hash.hasBytes());
    EXPECT_EQ(model->schema->name(), "default");
    EXPECT_EQ(model->schema->id(), 1u);

    const Entity& entity = *model->schema->entities().at(0);
    EXPECT_TRUE(entity.relations().empty());
    EXPECT_EQ(entity.idProperty().name(), "id");
    EXPECT_EQ(entity.indexes().at(0)->type(), IndexType::Hnsw);
    HnswOptions expected;  // what was not set keeps its default
    expected.indexingSearchCount = 55;
    expected.debugLogs = true;
    expected.vectorCacheSize = 9 * 1024;
    expected.vectorCacheSizeIsDefault = false;
    EXPECT_EQ(*entity.propertyById(2).hnswOptions(), expected);
}

TEST(ModelReader, ReadsAtAnyAddress) {
    const Bytes bytes = libraryModel().build();
    for (size_t shift = 1; shift < 8; ++shift) {
        Bytes moved = Bytes::allocated(bytes.size() + shift);
        std::memcpy(moved.mutableData() + shift, bytes.data(), bytes.size());
        EXPECT_TRUE(readModel(Bytes(moved.data() + shift, bytes.size())));
    }
}

// Gives whether damaged bytes were taken; they may also be refused, in any of our ways.
bool isReadable(const Bytes& bytes) {
    try {
        return readModel(bytes).has_value();
    } catch (const Exception&) {
        return false;
    }
}

TEST(ModelReader, SurvivesDamagedBytes) {
    ModelTable spec = libraryModel();
    spec.entity("Book").property("pages").hnsw = HnswOptions{.dimensions = 2};
    const Bytes bytes = spec.build();
    constexpr size_t kPadding = 7;  // at the end, at most
    for (size_t size = 0; size < bytes.size() - kPadding; ++size) {
        EXPECT_FALSE(isReadable(Bytes::copyOf(bytes.data(), size))) << size;
    }
    std::mt19937 random(testSeed());
    int readable = 0;
    constexpr int kRounds = 5000;
    for (int round = 0; round < kRounds; ++round) {
        Bytes damaged = Bytes::copyOf(bytes.data(), bytes.size());
        for (auto changes = random() % 4 + 1; changes > 0; --changes) {
            damaged.mutableData()[random() % damaged.size()] = static_cast<uint8_t>(random());
        }
        readable += isReadable(damaged);
    }
    // Most changes hit an offset, a few only a value.
    EXPECT_GT(readable, 0);
    EXPECT_LT(readable, kRounds);

    Bytes noise = Bytes::allocated(256);
    for (int round = 0; round < kRounds; ++round) {
        for (size_t i = 0; i < noise.size(); ++i) {
            noise.mutableData()[i] = static_cast<uint8_t>(random() % 3 == 0 ? random() : 0);
        }
        isReadable(noise);
    }
}

}  // namespace
}  // namespace quillmere
