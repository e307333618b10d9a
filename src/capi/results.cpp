#include "capi/results.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "capi/guard.h"
#include "core/error.h"

namespace quillmere {

namespace {

constexpr const char* kNoBytesArray = "Could not allocate bytes array for element size: ";
constexpr const char* kNoIdArray = "Could not allocate ids array for element size: ";

// The header of an array with room for its elements, and for data of them, behind it.
template <class Record, class Element>
Record* allocateArray(size_t count, const char* failure, size_t dataSize = 0) {
    static_assert(sizeof(Record) % alignof(Element) == 0);
    size_t size;
    void* block = nullptr;
    if (!__builtin_mul_overflow(count, sizeof(Element), &size) &&
        !__builtin_add_overflow(size, sizeof(Record), &size) &&
        !__builtin_add_overflow(size, dataSize, &size)) {
        block = std::malloc(size);
    }
    if (!block) throwAllocation(failure, std::to_string(count));
    return new (block) Record{};
}

template <class Element, class Record>
Element* elementsOf(Record* record) {
    return reinterpret_cast<Element*>(record + 1);
}

// The bytes that a copy of an object takes.
constexpr size_t roomForCopy(size_t size) {
    constexpr size_t kAlignment = 8;
    return (size + kAlignment - 1) & ~(kAlignment - 1);
}

size_t sizeOf(const Bytes& object) { return object.size(); }
size_t sizeOf(const QMR_bytes_score& object) { return object.size; }

template <class Objects>
size_t roomForCopies(const Objects& objects, ObjectData data) {
    size_t room = 0;
    if (data == ObjectData::Views) return room;
    for (const auto& object : objects) room += roomForCopy(sizeOf(object));
    return room;
}

// Copies what the elements view to the room behind them.
template <class Element>
void takeCopies(std::span<Element> elements) {
    auto* room = reinterpret_cast<uint8_t*>(elements.data() + elements.size());
    for (Element& element : elements) {
        if (element.size != 0) std::memcpy(room, element.data, element.size);
        element.data = room;
        room += roomForCopy(element.size);
    }
}

struct OwningStringArray : QMR_string_array {
    std::vector<std::string> strings;
    std::vector<const char*> pointers;
};

template <class Item, class Record>
void freeValueArray(Record* array) {
    delete static_cast<OwningArray<Record, Item>*>(array);
}

}  // namespace

QMR_bytes_array* makeBytesArray(size_t count) {
    auto* const array = allocateArray<QMR_bytes_array, QMR_bytes>(count, kNoBytesArray);
    array->bytes = elementsOf<QMR_bytes>(array);
    array->count = count;
    std::memset(static_cast<void*>(array->bytes), 0, count * sizeof(QMR_bytes));
    return array;
}

QMR_bytes_array* makeBytesArray(std::span<const Bytes> objects, ObjectData data) {
    auto* const array = allocateArray<QMR_bytes_array, QMR_bytes>(
        objects.size(), kNoBytesArray, roomForCopies(objects, data));
    array->bytes = elementsOf<QMR_bytes>(array);
    array->count = objects.size();
    QMR_bytes* element = array->bytes;
    for (const Bytes& object : objects) *element++ = {object.data(), object.size()};
    if (data == ObjectData::Copies) takeCopies(std::span(array->bytes, array->count));
    return array;
}

QMR_bytes_score_array* makeBytesScoreArray(std::span<const QMR_bytes_score> objects,
                                           ObjectData data) {
    auto* const array = allocateArray<QMR_bytes_score_array, QMR_bytes_score>(
        objects.size(), kNoBytesArray, roomForCopies(objects, data));
    array->bytes_scores = elementsOf<QMR_bytes_score>(array);
    array->count = objects.size();
    std::copy(objects.begin(), objects.end(), array->bytes_scores);
    if (data == ObjectData::Copies) takeCopies(std::span(array->bytes_scores, array->count));
    return array;
}

QMR_id_array* makeIdArray(std::span<const qmr_id> ids) {
    auto* const array = allocateArray<QMR_id_array, qmr_id>(ids.size(), kNoIdArray);
    array->count = ids.size();
    if (!ids.empty()) {
        array->ids = elementsOf<qmr_id>(array);
        std::memcpy(array->ids, ids.data(), ids.size_bytes());
    }
    return array;
}

QMR_id_score_array* makeIdScoreArray(size_t count) {
    auto* const array = allocateArray<QMR_id_score_array, QMR_id_score>(count, kNoIdArray);
    array->ids_scores = elementsOf<QMR_id_score>(array);
    array->count = count;
    return array;
}

QMR_string_array* makeStringArray(std::vector<std::string> strings) {
    auto array = std::make_unique<OwningStringArray>();
    array->strings = std::move(strings);
    array->pointers.reserve(array->strings.size());
    for (const std::string& text : array->strings) array->pointers.push_back(text.c_str());
    array->items = array->pointers.data();
    array->count = array->pointers.size();
    return array.release();
}

}  // namespace quillmere

using namespace quillmere;

QMR_bytes_array* qmr_bytes_array(size_t count) {
    return pointerCall([&] { return makeBytesArray(count); });
}

qmr_err qmr_bytes_array_set(QMR_bytes_array* array, size_t index, const void* data, size_t size) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(array);
        CHECK_ARG(index < array->count);
        array->bytes[index] = {data, size};
    });
}

QMR_id_array* qmr_id_array(const qmr_id* ids, size_t count) {
    return pointerCall([&] {
        if (count != 0) CHECK_ARG_NOT_NULL(ids);
        return makeIdArray({ids, count});
    });
}

qmr_err qmr_bytes_lazy_get(QMR_bytes_lazy* lazy, const void** out_data, size_t* out_size) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(lazy);
        CHECK_ARG_NOT_NULL(out_data);
        CHECK_ARG_NOT_NULL(out_size);
        const std::span<const uint8_t> bytes = lazy->produce();
        *out_data = bytes.data();
        *out_size = bytes.size();
    });
}

void qmr_bytes_free(QMR_bytes* bytes) {
    std::free(bytes);
}

void qmr_bytes_array_free(QMR_bytes_array* array) {
    std::free(array);
}

void qmr_bytes_lazy_free(QMR_bytes_lazy* lazy) {
    delete lazy;
}

void qmr_id_array_free(QMR_id_array* array) {
    std::free(array);
}

void qmr_bytes_score_array_free(QMR_bytes_score_array* array) {
    std::free(array);
}

void qmr_id_score_array_free(QMR_id_score_array* array) {
    std::free(array);
}

void qmr_string_array_free(QMR_string_array* array) {
    delete static_cast<OwningStringArray*>(array);
}

void qmr_int64_array_free(QMR_int64_array* array) {
    freeValueArray<int64_t>(array);
}

void qmr_int32_array_free(QMR_int32_array* array) {
    freeValueArray<int32_t>(array);
}

void qmr_int16_array_free(QMR_int16_array* array) {
    freeValueArray<int16_t>(array);
}

void qmr_int8_array_free(QMR_int8_array* array) {
    freeValueArray<int8_t>(array);
}

void qmr_double_array_free(QMR_double_array* array) {
    freeValueArray<double>(array);
}

void qmr_float_array_free(QMR_float_array* array) {
    freeValueArray<float>(array);
}
