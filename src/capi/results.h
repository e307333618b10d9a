#pragma once

// The result records. Arrays of IDs and bytes are one heap block, the elements behind the header,
// so that freeing them is a plain free; arrays of values and strings own their elements through a
// vector behind the public head.

#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "quillmere/quillmere.h"

// Bytes that are produced when they are asked for. The owner keeps alive what the function needs.
struct QMR_bytes_lazy {
    std::function<std::span<const uint8_t>()> produce;
    std::shared_ptr<void> owner;
};

namespace quillmere {

// The caller owns what these make. Without memory, blocks throw AllocationException.

// Elements that are all null.
QMR_bytes_array* makeBytesArray(size_t count);
// Whether the elements of an array point to the bytes given, or to copies behind the elements in
// the same block, each aligned to 8 bytes.
enum class ObjectData { Views, Copies };

QMR_bytes_array* makeBytesArray(std::span<const Bytes> objects,
                                ObjectData data = ObjectData::Views);
QMR_bytes_score_array* makeBytesScoreArray(std::span<const QMR_bytes_score> objects,
                                           ObjectData data);
QMR_id_array* makeIdArray(std::span<const qmr_id> ids);
// Elements to be filled.
QMR_id_score_array* makeIdScoreArray(size_t count);
QMR_string_array* makeStringArray(std::vector<std::string> strings);

// A value array as it is allocated: the public record with the owner of its items behind it.
template <class Record, class Item>
struct OwningArray : Record {
    std::vector<Item> owner;
};

// For example makeValueArray<QMR_int32_array>(std::vector<int32_t>{...}).
template <class Record, class Item>
Record* makeValueArray(std::vector<Item> values) {
    auto array = std::make_unique<OwningArray<Record, Item>>();
    array->owner = std::move(values);
    array->items = array->owner.data();
    array->count = array->owner.size();
    return array.release();
}

}  // namespace quillmere
