#include "schema/index.h"

#include <string>
#include <utility>

#include "core/error.h"
#include "schema/property.h"

namespace quillmere {
namespace {

uint32_t indexFlags(const Property& property) {
    return (property.hasFlag(kPropertyIndexSkipAbsent) ? Index::kSkipNull : 0u) |
           (property.hasFlag(kPropertyIndexHash) ? Index::kHash : 0u) |
           (property.hasFlag(kPropertyIndexHash64) ? Index::kHash64 : 0u);
}

IndexType indexType(const Property& property, uint32_t flags) {
    if (property.hnswOptions()) return IndexType::Hnsw;
    if (flags & Index::kHash64) return IndexType::Hash64;
    return flags & Index::kHash ? IndexType::Hash : IndexType::Value;
}

}  // namespace

Index::Index(uint32_t entityId, std::shared_ptr<const Property> property)
    : entityId_(entityId), id_(property->indexId()), uid_(property->indexUid()) {
    if (!property->isIndexed()) throwIllegalArgument("Property is not indexed: ", property->name());
    flags_ = indexFlags(*property);
    type_ = indexType(*property, flags_);
    unique_ = property->hasFlag(kPropertyUnique);
    properties_.push_back(std::move(property));
}

const Property& Index::property() const {
    if (properties_.size() != 1) {
        throwIllegalState("Expected one property but found: ",
                          static_cast<int64_t>(properties_.size()));
    }
    return *properties_.front();
}

}  // namespace quillmere
