// Access to the fields of an object.

#include "fuzz.h"
#include "store/object_table.h"

using namespace quillmere;

namespace {

// Reads every byte, so that a sanitizer sees one outside of the object.
unsigned sumOf(const void* data, size_t size) {
    unsigned sum = 0;
    for (size_t i = 0; i < size; ++i) sum += static_cast<const uint8_t*>(data)[i];
    return sum;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const ObjectTable object(data, size);
    unsigned sum = 0;
    for (uint16_t offset = 0; offset < 64; ++offset) {
        sum += static_cast<unsigned>(object.scalar<uint64_t>(offset));
        sum += object.scalar<uint8_t>(offset);
        const std::string_view text = object.string(offset);
        sum += sumOf(text.data(), text.size());
        const ObjectVector numbers = object.vector(offset, 8);
        sum += sumOf(numbers.data, numbers.count * 8);
        const ObjectVector strings = object.stringVector(offset);
        for (size_t i = 0; i < strings.count; ++i) {
            const std::string_view element = object.stringAt(strings, i);
            sum += sumOf(element.data(), element.size());
        }
    }
    static volatile unsigned keptFromTheOptimizer;
    keptFromTheOptimizer = sum;
    static_cast<void>(keptFromTheOptimizer);
    return 0;
}
