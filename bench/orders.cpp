#include "orders.h"

#include <algorithm>
#include <cstdio>

namespace bench {

namespace {

constexpr uint32_t kSetSize = 20;

// BuildObject is a plain function: what depends on the number of orders is set around its use.
uint32_t customers = 1, groups = 1;

void buildOrder(flatbuffers::FlatBufferBuilder& builder, uint32_t id, Random& random) {
    const auto code = builder.CreateString(CodeText(random() % customers).c_str());
    const auto text = builder.CreateString(randomText(random, 20, 50));
    const auto table = builder.StartTable();
    builder.AddElement<uint64_t>(flatOffset(kId), id, 0);
    builder.AddElement<uint64_t>(flatOffset(kOwner), random() % groups + 1, 0);
    builder.AddElement<double>(flatOffset(kOrderPrice),
                               static_cast<double>(random() >> 11) / (1 << 30), 0);
    builder.AddOffset(flatOffset(kCode), code);
    builder.AddOffset(flatOffset(kText), text);
    builder.AddElement<int32_t>(flatOffset(kCustomer), static_cast<int32_t>(random() % customers),
                                -1);
    builder.AddElement<int32_t>(flatOffset(kOrderCategory), static_cast<int32_t>(random() % 100),
                                -1);
    builder.AddElement<int32_t>(flatOffset(kOrderStock), static_cast<int32_t>(random() % 1000),
                                -1);
    builder.Finish(flatbuffers::Offset<flatbuffers::Table>(builder.EndTable(table)));
}

void buildGroup(flatbuffers::FlatBufferBuilder& builder, uint32_t id, Random& random) {
    const auto table = builder.StartTable();
    builder.AddElement<uint64_t>(flatOffset(kId), id, 0);
    builder.AddElement<int32_t>(flatOffset(kRegion), static_cast<int32_t>(random() % 100), -1);
    builder.Finish(flatbuffers::Offset<flatbuffers::Table>(builder.EndTable(table)));
}

}  // namespace

uint32_t groupCount(uint32_t orderCount) { return std::max(1u, orderCount / 100); }
uint32_t valueCount(uint32_t orderCount) { return std::max(1u, orderCount / 10); }

Dataset makeOrders(uint32_t count) {
    customers = valueCount(count);
    groups = groupCount(count);
    return Dataset(count, 4, buildOrder);
}

Dataset makeGroups(uint32_t orderCount) { return Dataset(groupCount(orderCount), 5, buildGroup); }

CodeText::CodeText(uint32_t number) {
    std::snprintf(text_.data(), text_.size(), "code-%08u", number);
}

std::vector<int32_t> stockSet(uint32_t n) {
    std::vector<int32_t> set;
    for (uint32_t i = 0; i < kSetSize; ++i) {
        set.push_back(static_cast<int32_t>((n + i * 47) % 1000));
    }
    return set;
}

std::string needle(uint32_t n) {
    return {static_cast<char>('a' + n % 26), static_cast<char>('a' + n / 26 % 26), 'q'};
}

std::string needleInCapitals(uint32_t n) {
    std::string text = needle(n);
    for (char& c : text) c = static_cast<char>(c - 'a' + 'A');
    return text;
}

}  // namespace bench
