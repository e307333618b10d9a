#include "store/collector.h"

#include <string>

#include "core/error.h"
#include "schema/entity.h"

namespace quillmere {

namespace {

// What a table's own 16-bit offsets can reach, and what a builder can hold.
constexpr size_t kMaxTableSize = 0xFFFF;
constexpr uint16_t kMaxFlatOffset = 0xFFFC;
constexpr size_t kMaxObjectSize = FLATBUFFERS_MAX_BUFFER_SIZE;
constexpr size_t kRoomForFrame = 1 << 20;  // table, vtable, lengths and alignment at most

[[noreturn, gnu::cold]] void throwUnknownScalar(const Property& property) {
    throwIllegalArgument(property.name(), " has an unknown scalar type (",
                         std::to_string(static_cast<unsigned>(property.type())), ")");
}

[[noreturn, gnu::cold]] void throwTooLarge() {
    throwIllegalArgument("Object is too large to be collected");
}

}  // namespace

Collector::Collector(const Entity& entity) : idPropertyId_(entity.idProperty().id()) {
    pending_.reserve(entity.properties().size());
}

void Collector::collectString(const Property& property, std::string_view text) {
    prepareObject(text.size(), 1);
    addPending(property, builder_.CreateSharedString(text.data(), text.size()).o);
}

void Collector::collectBytes(const Property& property, const void* data, size_t size) {
    collectScalarVector(property, static_cast<const uint8_t*>(data), size);
}

void Collector::addStringToVector(std::string_view text) {
    prepareObject(text.size(), 1);
    strings_.push_back(builder_.CreateSharedString(text.data(), text.size()));
}

void Collector::collectStringVector(const Property& property) {
    prepareObject(strings_.size(), sizeof(flatbuffers::uoffset_t));
    addPending(property, builder_.CreateVector(strings_).o);
    strings_.clear();
}

// Before anything of variable length is created.
void Collector::prepareObject(size_t count, size_t elementSize) {
    if (start_ != kNoTable) {
        throwIllegalState("Collecting this type must precede scalar collecting");
    }
    const size_t used = builder_.GetSize() + kRoomForFrame;
    if (used > kMaxObjectSize || count > (kMaxObjectSize - used) / elementSize) throwTooLarge();
}

void Collector::addPending(const Property& property, flatbuffers::uoffset_t offset) {
    pending_.push_back({offset, property.flatOffset()});
}

void Collector::startTable() {
    if (start_ != kNoTable) return;
    if (!strings_.empty()) {
        throwIllegalState("There are pending strings for a vector that was never created");
    }
    start_ = builder_.StartTable();
    for (const PendingField& field : pending_) {
        addScalar(field.flatOffset, builder_.ReferTo(field.offset));
    }
}

template <class T>
void Collector::addScalar(uint16_t flatOffset, T value) {
    const size_t tableSize = builder_.GetSize() - start_ + 2 * sizeof(T);
    if (flatOffset > kMaxFlatOffset || tableSize > kMaxTableSize) throwTooLarge();
    builder_.AddElement(flatOffset, value);
}

void Collector::collectInteger(const Property& property, int64_t value) {
    if (property.id() == idPropertyId_) throwIllegalArgument("ID must not be collected");
    startTable();
    switch (property.type()) {
        case PropertyType::Bool:
        case PropertyType::Byte:
            return addScalar(property.flatOffset(), static_cast<int8_t>(value));
        case PropertyType::Short:
        case PropertyType::Char:
            return addScalar(property.flatOffset(), static_cast<int16_t>(value));
        case PropertyType::Int:
            return addScalar(property.flatOffset(), static_cast<int32_t>(value));
        case PropertyType::Long:
        case PropertyType::Date:
        case PropertyType::Relation:
        case PropertyType::DateNano:
            return addScalar(property.flatOffset(), value);
        default:
            throwUnknownScalar(property);
    }
}

void Collector::collectFloatingPoint(const Property& property, double value) {
    startTable();
    switch (property.type()) {
        case PropertyType::Float:
            return addScalar(property.flatOffset(), static_cast<float>(value));
        case PropertyType::Double:
            return addScalar(property.flatOffset(), value);
        default:
            throwUnknownScalar(property);
    }
}

std::span<const uint8_t> Collector::finish(uint16_t idFlatOffset, uint64_t id) {
    startTable();
    addScalar(idFlatOffset, id);
    builder_.Finish(flatbuffers::Offset<flatbuffers::Table>(builder_.EndTable(start_)));
    return {builder_.GetBufferPointer(), builder_.GetSize()};
}

void Collector::reset() {
    builder_.Clear();
    pending_.clear();
    strings_.clear();
    start_ = kNoTable;
}

}  // namespace quillmere
