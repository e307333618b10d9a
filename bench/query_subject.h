#pragma once

// One database that is asked questions. Single-threaded; failures throw std::runtime_error.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "orders.h"

namespace bench {

class QuerySubject {
public:
    virtual ~QuerySubject() = default;

    // Starts over with an empty database with the first `indexes` indexes, not made to be durable.
    virtual void reset(uint32_t indexes) = 0;
    // In one transaction, in the order of IDs.
    virtual void putOrders(Dataset& orders) = 0;
    virtual void putGroups(Dataset& groups) = 0;

    // Asks once for each number, in one read transaction; nothing if the question is not for this
    // subject. Needs all indexes.
    virtual std::optional<uint64_t> ask(Question question,
                                        const std::vector<uint32_t>& numbers) = 0;
};

std::unique_ptr<QuerySubject> makeQuillmereQuerySubject(const std::string& directory,
                                                        uint64_t maxSizeInKb);
std::unique_ptr<QuerySubject> makeLmdbQuerySubject(const std::string& directory,
                                                   uint64_t maxSizeInKb);
std::unique_ptr<QuerySubject> makeSqliteQuerySubject(const std::string& directory);

}  // namespace bench
