#include "capi/results.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "capi/guard.h"
#include "core/error.h"

namespace quillmere {

namespace {

// The header of an array with room for its elements behind it.
template <class Record, class Element>
Record* allocateArray(size_t count, const char* failure) {
    static_assert(sizeof(Record) % alignof(Element) == 0);
    size_t size;
    void* block = nullptr;
    if (!__builtin_mul_overflow(count, sizeof(Element), &size) &&
        !__builtin_add_overflow(size, sizeof(Record), &size)) {
        block = std::malloc(size);
    }
    if (!block) throwAllocation(failure, std::to_string(count));
    return new (block) Record{};
}

template <class Element, class Record>
Element* elementsOf(Record* record) {
    return reinterpret_cast<Element*>(record + 1);
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
    auto* const array = allocateArray<QMR_bytes_array, QMR_bytes>(
        count, "Could not allocate bytes array for element size: ");
    array->bytes = elementsOf<QMR_bytes>(array);
    array->count = count;
    std::memset(static_cast<void*>(array->bytes), 0, count * sizeof(QMR_bytes));
    return array;
}

QMR_bytes_array* makeBytesArray(std::span<const Bytes> objects) {
    QMR_bytes_array* const array = makeBytesArray(objects.size());
    QMR_bytes* element = array->bytes;
    for (const Bytes& object : objects) *element++ = {object.data(), object.size()};
    return array;
}

QMR_id_array* makeIdArray(std::span<const qmr_id> ids) {
    auto* const array = allocateArray<QMR_id_array, qmr_id>(
        ids.size(), "Could not allocate ids array for element size: ");
    array->count = ids.size();
    if (!ids.empty()) {
        array->ids = elementsOf<qmr_id>(array);
        std::memcpy(array->ids, ids.data(), ids.size_bytes());
    }
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
