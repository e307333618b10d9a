#pragma once

// Verification of FlatBuffers that come from outside, with the same limits everywhere, and reads
// that are safe at any alignment. There is no generated code: whoever owns a table format names
// its fields, by ID.
//
//     bool verifyPerson(flatbuffers::Verifier& verifier, const flatbuffers::Table& person) {
//         return verifyScalar<uint64_t>(verifier, person, 0) && verifyText(verifier, person, 1);
//     }
//     if (!verifyFlatBuffer(data, size, verifyPerson)) ...

#include <flatbuffers/flatbuffers.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "core/endian.h"

namespace quillmere {

inline constexpr uint32_t kFlatBufferMaxDepth = 64;
inline constexpr uint32_t kFlatBufferMaxTables = 1'000'000;
inline constexpr size_t kFlatBufferMaxSize = 2147483647;
// The root's offset, the way from the root to its vtable, and the vtable's head.
inline constexpr size_t kFlatBufferMinSize = 4 + 4 + 2 * 2;

enum class AlignmentCheck : bool { Off, On };

// The vtable offset of a field.
constexpr flatbuffers::voffset_t fieldOffset(uint32_t id) {
    return static_cast<flatbuffers::voffset_t>(4 + 2 * id);
}

// For verifyFlatBuffer and verifyTable if only the table itself is of interest.
inline bool anyFields(flatbuffers::Verifier&, const flatbuffers::Table&) {
    return true;
}

// Verifies a table at `at`, which may lie anywhere, and then its fields by
// `verifyFields(verifier, table)`.
template <class VerifyFields>
bool verifyTable(flatbuffers::Verifier& verifier, const uint8_t* at,
                 const VerifyFields& verifyFields) {
    const auto* const table = reinterpret_cast<const flatbuffers::Table*>(at);
    return verifier.VerifyTableStart(at) && verifyFields(verifier, *table) && verifier.EndTable();
}

// Whether the bytes hold a buffer whose root table passes. Safe for any bytes, null included.
template <class VerifyFields>
bool verifyFlatBuffer(const void* data, size_t size, const VerifyFields& verifyFields,
                      AlignmentCheck alignment = AlignmentCheck::On) {
    if (!data || size < kFlatBufferMinSize || size >= kFlatBufferMaxSize) return false;
    flatbuffers::Verifier::Options options;
    options.max_depth = kFlatBufferMaxDepth;
    options.max_tables = kFlatBufferMaxTables;
    options.check_alignment = alignment == AlignmentCheck::On;
    const auto* const bytes = static_cast<const uint8_t*>(data);
    flatbuffers::Verifier verifier(bytes, size, options);
    const size_t root = verifier.VerifyOffset(size_t{0});
    return root != 0 && verifyTable(verifier, bytes + root, verifyFields);
}

// The root table of a verified buffer.
inline const flatbuffers::Table& rootTable(const void* data) {
    const auto* const bytes = static_cast<const uint8_t*>(data);
    return *reinterpret_cast<const flatbuffers::Table*>(bytes + loadLittle<uint32_t>(bytes));
}

// Absent fields pass all of these.

template <class T>
bool verifyScalar(const flatbuffers::Verifier& verifier, const flatbuffers::Table& table,
                  uint32_t id) {
    return table.VerifyField<T>(verifier, fieldOffset(id), sizeof(T));
}

inline bool verifyStruct(const flatbuffers::Verifier& verifier, const flatbuffers::Table& table,
                         uint32_t id, size_t size, size_t alignment) {
    const auto offset = table.GetOptionalFieldOffset(fieldOffset(id));
    return offset == 0 || verifier.VerifyFieldStruct(reinterpret_cast<const uint8_t*>(&table),
                                                     offset, size, alignment);
}

inline bool verifyText(const flatbuffers::Verifier& verifier, const flatbuffers::Table& table,
                       uint32_t id) {
    return table.VerifyOffset(verifier, fieldOffset(id)) &&
           verifier.VerifyString(table.GetPointer<const flatbuffers::String*>(fieldOffset(id)));
}

inline bool verifyBytes(const flatbuffers::Verifier& verifier, const flatbuffers::Table& table,
                        uint32_t id) {
    return table.VerifyOffset(verifier, fieldOffset(id)) &&
           verifier.VerifyVector(
               table.GetPointer<const flatbuffers::Vector<uint8_t>*>(fieldOffset(id)));
}

template <class VerifyFields>
bool verifySubTable(flatbuffers::Verifier& verifier, const flatbuffers::Table& table, uint32_t id,
                    const VerifyFields& verifyFields) {
    if (!table.VerifyOffset(verifier, fieldOffset(id))) return false;
    const auto* const at = table.GetPointer<const uint8_t*>(fieldOffset(id));
    return !at || verifyTable(verifier, at, verifyFields);
}

// A vector of tables.
template <class VerifyFields>
bool verifySubTables(flatbuffers::Verifier& verifier, const flatbuffers::Table& table, uint32_t id,
                     const VerifyFields& verifyFields) {
    using Offset = flatbuffers::uoffset_t;
    if (!table.VerifyOffset(verifier, fieldOffset(id))) return false;
    const auto* const vector = table.GetPointer<const uint8_t*>(fieldOffset(id));
    if (!vector) return true;
    if (!verifier.VerifyVectorOrString(vector, sizeof(Offset))) return false;
    const uint32_t count = loadLittle<uint32_t>(vector);
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t* const element = vector + sizeof(Offset) * (size_t{1} + i);
        const Offset offset = verifier.VerifyOffset(element, 0);
        if (offset == 0 || !verifyTable(verifier, element + offset, verifyFields)) return false;
    }
    return true;
}

// Reads of verified tables. Scalars: flatbuffers::Table::GetField. An absent field gives an empty
// view, whose data is null.

inline std::span<const uint8_t> readBytesField(const flatbuffers::Table& table, uint32_t id) {
    const auto* const vector = table.GetPointer<const uint8_t*>(fieldOffset(id));
    if (!vector) return {};
    return {vector + sizeof(uint32_t), loadLittle<uint32_t>(vector)};
}

inline std::string_view readTextField(const flatbuffers::Table& table, uint32_t id) {
    const std::span<const uint8_t> bytes = readBytesField(table, id);
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace quillmere
