#pragma once

// FlatBuffers tables field by field: writing, and the reading that core/flatbuffer_check.h leaves.

#include <flatbuffers/flatbuffers.h>

#include <cstdint>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "core/flatbuffer_check.h"

namespace quillmere {

using TableOffset = flatbuffers::Offset<flatbuffers::Table>;

// One table. Its strings, vectors and sub tables must exist before it is started. Values of zero
// and null offsets are left out.
class TableWriter {
public:
    explicit TableWriter(flatbuffers::FlatBufferBuilder& builder)
        : builder_(builder), start_(builder.StartTable()) {}

    template <class T>
    void scalar(uint32_t field, T value) {
        builder_.AddElement<T>(fieldOffset(field), value, T{});
    }
    template <class T>
    void offset(uint32_t field, flatbuffers::Offset<T> value) {
        builder_.AddOffset(fieldOffset(field), value);
    }
    template <class T>
    void structure(uint32_t field, const T& value) {
        builder_.AddStruct(fieldOffset(field), &value);
    }
    TableOffset finish() { return TableOffset(builder_.EndTable(start_)); }

private:
    flatbuffers::FlatBufferBuilder& builder_;
    flatbuffers::uoffset_t start_;
};

// A null offset for an empty text.
inline flatbuffers::Offset<flatbuffers::String> createText(flatbuffers::FlatBufferBuilder& builder,
                                                           const std::string& text) {
    return text.empty() ? 0 : builder.CreateString(text);
}

// A null offset for an empty list.
inline flatbuffers::Offset<flatbuffers::Vector<TableOffset>> createTables(
    flatbuffers::FlatBufferBuilder& builder, const std::vector<TableOffset>& tables) {
    return tables.empty() ? 0 : builder.CreateVector(tables);
}

// An owned copy of a finished buffer. Its size is a multiple of 4.
inline Bytes finishedBytes(flatbuffers::FlatBufferBuilder& builder, TableOffset root) {
    builder.Finish(root);
    return Bytes::copyOf(builder.GetBufferPointer(), builder.GetSize());
}

// FlatBuffers are read in place, which needs their alignment: a view of bytes that have it, else an
// owned copy.
inline Bytes alignedForTables(const Bytes& bytes) {
    const bool aligned = reinterpret_cast<uintptr_t>(bytes.data()) % alignof(uint64_t) == 0;
    return aligned ? Bytes(bytes.data(), bytes.size())
                   : Bytes::copyOf(bytes.data(), bytes.size());
}

// A scalar of a verified table, 0 if it is absent.
template <class T>
T readScalar(const flatbuffers::Table& table, uint32_t field) {
    return table.GetField<T>(fieldOffset(field), T{});
}

// A text of a verified table, empty if it is absent.
inline std::string readText(const flatbuffers::Table& table, uint32_t field) {
    return std::string(readTextField(table, field));
}

// Calls `visit` with each table of a verified vector, in order; an absent one has none.
template <class Visit>
void forEachTable(const flatbuffers::Table& table, uint32_t field, const Visit& visit) {
    const auto* const tables =
        table.GetPointer<const flatbuffers::Vector<TableOffset>*>(fieldOffset(field));
    if (!tables) return;
    for (flatbuffers::uoffset_t i = 0; i < tables->size(); ++i) visit(*tables->Get(i));
}

}  // namespace quillmere
