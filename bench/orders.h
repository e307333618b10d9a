#pragma once

// The objects of the query benchmark: orders, each of a group, and what is asked about them.

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "dataset.h"

namespace bench {

constexpr uint32_t kOrderEntity = 1, kGroupEntity = 2;

// In the order of their IDs; kId is the first.
enum OrderProperty : uint16_t {
    kCustomer = 2,       // a tenth as many values as orders; index 1
    kCode = 3,           // a text, as many values; index 2
    kOwner = 4,          // ID of a group; index 3
    kOrderCategory = 5,  // 0 to 99
    kOrderPrice = 6,
    kOrderStock = 7,     // 0 to 999
    kText = 8,           // 20 to 50 random letters
};
enum GroupProperty : uint16_t { kRegion = 2 };  // 0 to 99
constexpr uint32_t kCustomerIndex = 1, kCodeIndex = 2, kOwnerIndex = 3;

// A hundredth as many groups as orders, the customers and codes a tenth.
uint32_t groupCount(uint32_t orderCount);
uint32_t valueCount(uint32_t orderCount);

// The data sets; the number of orders settles how many values there are.
Dataset makeOrders(uint32_t count);
Dataset makeGroups(uint32_t orderCount);

// The text of a code, zero-terminated.
class CodeText {
public:
    explicit CodeText(uint32_t number);
    const char* c_str() const { return text_.data(); }

private:
    std::array<char, 20> text_;
};

// What all subjects are asked, once for each number of a list. The answers are added up.
enum class Question {
    kByInteger,       // orders of customer n, fetched: the sum of ID and stock
    kByString,        // the same of code n
    kCountByInteger,  // orders of customer n: their number
    kIdsByInteger,    // the sum of their IDs
    kScan,            // orders of a category below n and a stock from 500 on: their number
    kInSet,           // orders with the stock n or 19 others: their number
    kContains,        // orders with needle n in the text: their number
    kContainsAnyCase,
    kTop10,           // the sum of the IDs of the 10 highest prices
    kLink,            // orders of a group in region n: their number
    kSum,             // of all stocks
    kAverage,         // of all prices, times 1000, rounded
    kDistinct,        // number of different stocks
};

constexpr int32_t kScanStock = 500;
std::vector<int32_t> stockSet(uint32_t n);
std::string needle(uint32_t n);          // lower case, as all texts
std::string needleInCapitals(uint32_t n);

}  // namespace bench
