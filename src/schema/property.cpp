#include "schema/property.h"

#include <utility>

#include "core/checks.h"
#include "core/error.h"

namespace quillmere {
namespace {

constexpr uint32_t kIndexKindMask = kPropertyIndexMask & ~uint32_t{kPropertyIndexed};

// Takes a value once; zero means not taken yet.
template <class T>
void setOnce(T& member, T value, const char* message) {
    if (member != 0 && member != value) throwIllegalState(message);
    member = value;
}

}  // namespace

Property::Property(uint32_t id, uint64_t uid, std::string name, PropertyType type, uint32_t flags)
    : id_(id), uid_(uid), name_(std::move(name)), type_(type), flags_(flags) {}

std::string Property::text() const {
    return "Property \"" + name_ + "\" (ID " + std::to_string(id_) + ", type " +
           propertyTypeName(type_) + ")";
}

void Property::setEntity(uint32_t entityId) {
    setOnce(entityId_, entityId, "Entity has already been set in Property");
}

void Property::setIndex(uint32_t indexId, uint64_t indexUid, uint32_t flags) {
    CHECK_ARG(indexUid);
    setOnce(indexId_, indexId, "Index has already been set in Property");
    indexUid_ = indexUid;
    flags_ |= (flags & kIndexKindMask) | kPropertyIndexed;
}

void Property::setIndexIds(uint32_t indexId, uint64_t indexUid) {
    setOnce(indexId_, indexId, "Index has already been set in Property");
    indexUid_ = indexUid;
}

void Property::removeIndex() {
    if (indexId_ == 0) {
        throwIllegalState("Cannot remove index from property: property has no index");
    }
    flags_ &= ~kPropertyIndexMask;
    indexId_ = 0;
    indexUid_ = 0;
}

void Property::setFlatOffset(uint32_t offset) {
    if (offset < 4 || offset % 2 != 0 || offset > UINT16_MAX) {
        throwIllegalArgument("Illegal offset");
    }
    setOnce(flatOffset_, static_cast<uint16_t>(offset), "Offset has already been set in Property");
}

void Property::finish() {
    if (name_.empty()) throwSchema("Property without name");
    const bool isFloat = type_ == PropertyType::Float || type_ == PropertyType::Double;
    if (isFloat && hasFlag(kPropertyUnsigned)) {
        throwSchema("Floating point types cannot be unsigned");
    }
    if (hasFlag(kPropertyUnique) && type_ == PropertyType::String) flags_ |= kPropertyIndexHash;
    constexpr uint32_t kImplyIndex = kPropertyIndexHash | kPropertyIndexHash64 | kPropertyUnique;
    if (flags_ & kImplyIndex) flags_ |= kPropertyIndexed;
}

}  // namespace quillmere
