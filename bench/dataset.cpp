#include "dataset.h"

#include <flatbuffers/flatbuffers.h>

#include <algorithm>
#include <cstring>
#include <numeric>

namespace bench {

std::string randomText(Random& random, size_t minLength, size_t maxLength) {
    std::string text(minLength + random() % (maxLength - minLength + 1), ' ');
    for (char& c : text) c = static_cast<char>('a' + random() % 26);
    return text;
}

void buildCrudObject(flatbuffers::FlatBufferBuilder& builder, uint32_t id, Random& random) {
    const auto name = builder.CreateString(randomText(random, 8, 20));
    const auto remark = builder.CreateString(randomText(random, 0, 24));
    const auto table = builder.StartTable();
    builder.AddElement<uint64_t>(flatOffset(kId), id, 0);
    builder.AddElement<int64_t>(flatOffset(kCreated), 1'600'000'000'000 + id * 1000LL, 0);
    builder.AddElement<double>(flatOffset(kPrice), static_cast<double>(random() % 100'000) + 1, 0);
    builder.AddOffset(flatOffset(kName), name);
    builder.AddOffset(flatOffset(kRemark), remark);
    builder.AddElement<int32_t>(flatOffset(kCategory), static_cast<int32_t>(random() % 100) + 1, 0);
    builder.AddElement<int32_t>(flatOffset(kStock), static_cast<int32_t>(random() % 1000) + 1, 0);
    builder.Finish(flatbuffers::Offset<flatbuffers::Table>(builder.EndTable(table)));
}

Dataset::Dataset(uint32_t count, uint64_t seed, BuildObject& build) : order_(count) {
    Random random(seed);
    flatbuffers::FlatBufferBuilder builder;
    offsets_.reserve(count + size_t{1});
    offsets_.push_back(0);
    for (uint32_t id = 1; id <= count; ++id) {
        builder.Clear();
        build(builder, id, random);
        bytes_.insert(bytes_.end(), builder.GetBufferPointer(),
                      builder.GetBufferPointer() + builder.GetSize());
        bytes_.resize((bytes_.size() + 7) / 8 * 8);
        offsets_.push_back(bytes_.size());
    }
    std::iota(order_.begin(), order_.end(), 1);
    std::shuffle(order_.begin(), order_.end(), random);
}

void Dataset::setIds(bool toZero) {
    for (uint32_t id = 1; id <= count(); ++id) {
        auto* table = flatbuffers::GetMutableRoot<flatbuffers::Table>(object(id).data);
        table->SetField<uint64_t>(flatOffset(kId), toZero ? 0 : id, 0);
    }
}

void Dataset::changeValues() {
    for (uint32_t id = 1; id <= count(); ++id) {
        auto* table = flatbuffers::GetMutableRoot<flatbuffers::Table>(object(id).data);
        const auto price = table->GetField<double>(flatOffset(kPrice), 0);
        const auto stock = table->GetField<int32_t>(flatOffset(kStock), 0);
        table->SetField<double>(flatOffset(kPrice), price + 1, 0);
        table->SetField<int32_t>(flatOffset(kStock), stock + 1, 0);
    }
}

uint64_t sumOfWords(const void* data, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    uint64_t sum = 0;
    for (size_t i = 0; i + sizeof(uint64_t) <= size; i += sizeof(uint64_t)) {
        uint64_t word;
        std::memcpy(&word, bytes + i, sizeof word);
        sum += word;
    }
    return sum;
}

uint64_t sumOfTwoFields(const void* data) {
    const auto* table = flatbuffers::GetRoot<flatbuffers::Table>(data);
    return static_cast<uint64_t>(table->GetField<int64_t>(flatOffset(kCreated), 0)) +
           static_cast<uint64_t>(table->GetField<int32_t>(flatOffset(kStock), 0));
}

}  // namespace bench
