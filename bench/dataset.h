#pragma once

// The objects that every subject stores: the same bytes for all, made once.

#include <flatbuffers/flatbuffer_builder.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace bench {

// The model of a benchmark object. A property with ID n is slot n - 1 of the FlatBuffers table, so
// it has the vtable offset 2 + 2 * n.
enum PropertyId : uint16_t {
    kId = 1,
    kName = 2,
    kCategory = 3,
    kCreated = 4,
    kPrice = 5,
    kStock = 6,
    kRemark = 7,
};
constexpr uint16_t flatOffset(uint16_t id) { return static_cast<uint16_t>(2 + 2 * id); }

struct Object {
    uint8_t* data;
    size_t size;
};

using Random = std::mt19937_64;
std::string randomText(Random& random, size_t minLength, size_t maxLength);

// Builds and finishes the object with the given ID; the ID property is number 1 in every model.
using BuildObject = void(flatbuffers::FlatBufferBuilder& builder, uint32_t id, Random& random);
void buildCrudObject(flatbuffers::FlatBufferBuilder& builder, uint32_t id, Random& random);

// Objects with the IDs 1 to count(), and a random order to visit them in. Single-threaded.
class Dataset {
public:
    Dataset(uint32_t count, uint64_t seed, BuildObject& build = buildCrudObject);

    uint32_t count() const { return static_cast<uint32_t>(order_.size()); }
    double averageSize() const { return static_cast<double>(bytes_.size()) / count(); }

    // The bytes live as long as the data set; a subject may let its database write the ID in place.
    Object object(uint32_t id) {
        return {bytes_.data() + offsets_[id - 1], offsets_[id] - offsets_[id - 1]};
    }
    const std::vector<uint32_t>& randomOrder() const { return order_; }

    // Writes into each object its own ID, or 0 as a database that draws the IDs expects it.
    void setIds(bool toZero);
    // Gives each object of the first model a new price and stock, in place and so at the same size.
    void changeValues();

private:
    std::vector<uint8_t> bytes_;
    std::vector<size_t> offsets_;
    std::vector<uint32_t> order_;
};

// What a reader of an object does with it, the same code for all subjects.
uint64_t sumOfWords(const void* data, size_t size);
uint64_t sumOfTwoFields(const void* data);

}  // namespace bench
