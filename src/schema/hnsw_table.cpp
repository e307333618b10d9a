#include "schema/hnsw_table.h"

#include "core/cast.h"

namespace quillmere {
namespace {

enum HnswField : uint32_t {
    kDimensions = 0,
    kNeighborsPerNode = 1,
    kIndexingSearchCount = 2,
    kFlags = 3,
    kDistanceType = 4,
    kReparationBacklinkProbability = 5,
    kVectorCacheSizeKb = 6,
};

}  // namespace

TableOffset writeHnswTable(flatbuffers::FlatBufferBuilder& builder, const HnswOptions& options) {
    const auto dimensions = checkedCast<uint32_t>(options.dimensions);
    const auto neighborsPerNode = checkedCast<uint32_t>(options.neighborsPerNode);
    const auto indexingSearchCount = checkedCast<uint32_t>(options.indexingSearchCount);
    const auto distanceType = checkedCast<uint16_t>(static_cast<uint32_t>(options.distanceType));
    TableWriter table(builder);
    table.scalar(kDimensions, dimensions);
    table.scalar(kNeighborsPerNode, neighborsPerNode);
    table.scalar(kIndexingSearchCount, indexingSearchCount);
    table.scalar(kFlags, options.flags());
    table.scalar(kDistanceType, distanceType);
    table.scalar(kReparationBacklinkProbability, options.reparationBacklinkProbability);
    if (!options.vectorCacheSizeIsDefault) {
        table.scalar(kVectorCacheSizeKb, options.vectorCacheSize >> 10);
    }
    return table.finish();
}

bool verifyHnswTable(flatbuffers::Verifier& verifier, const flatbuffers::Table& table) {
    return verifyScalar<uint32_t>(verifier, table, kDimensions) &&
           verifyScalar<uint32_t>(verifier, table, kNeighborsPerNode) &&
           verifyScalar<uint32_t>(verifier, table, kIndexingSearchCount) &&
           verifyScalar<uint32_t>(verifier, table, kFlags) &&
           verifyScalar<uint16_t>(verifier, table, kDistanceType) &&
           verifyScalar<float>(verifier, table, kReparationBacklinkProbability) &&
           verifyScalar<uint64_t>(verifier, table, kVectorCacheSizeKb);
}

std::shared_ptr<const HnswOptions> readHnswTable(const flatbuffers::Table& table) {
    auto options = std::make_shared<HnswOptions>();
    const auto number = [&](HnswField field, uint64_t absent) -> uint64_t {
        return table.GetField<uint32_t>(fieldOffset(field), static_cast<uint32_t>(absent));
    };
    options->dimensions = number(kDimensions, options->dimensions);
    options->neighborsPerNode = number(kNeighborsPerNode, options->neighborsPerNode);
    options->indexingSearchCount = number(kIndexingSearchCount, options->indexingSearchCount);
    options->setFlags(table.GetField<uint32_t>(fieldOffset(kFlags), 0));
    options->distanceType = static_cast<VectorDistanceType>(table.GetField<uint16_t>(
        fieldOffset(kDistanceType), static_cast<uint16_t>(options->distanceType)));
    options->reparationBacklinkProbability =
        table.GetField<float>(fieldOffset(kReparationBacklinkProbability),
                              options->reparationBacklinkProbability);
    if (table.CheckField(fieldOffset(kVectorCacheSizeKb))) {
        options->setVectorCacheSizeKb(
            table.GetField<uint64_t>(fieldOffset(kVectorCacheSizeKb), 0));
    }
    return options;
}

}  // namespace quillmere
