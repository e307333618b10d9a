#pragma once

// One database under measurement. Each operation is a whole loop, so that nothing of the benchmark
// itself stands between two objects.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace bench {

class Dataset;

// Heap allocations of each kind of operation, in a sample of that many after the same number and
// more have warmed up. An insert pays for the pages that it adds.
struct AllocationCounts {
    uint64_t insert = 0;
    uint64_t update = 0;
    uint64_t get = 0;
    uint64_t step = 0;
};
constexpr uint32_t kAllocationSample = 10'000;

// Failures throw std::runtime_error. Single-threaded. The database is closed and its files are
// removed by the destructor.
class Subject {
public:
    virtual ~Subject() = default;
    virtual std::string name() const = 0;

    // Whether objects are put with the ID 0 and the database draws it.
    virtual bool drawsIds() const { return false; }
    // Starts over with an empty database. `durable`: each commit shall survive a power failure.
    virtual void reset(bool durable) = 0;

    // Puts the first `count` objects in ID order, committing after every `batchSize`.
    virtual void put(Dataset& data, uint32_t count, uint32_t batchSize) = 0;
    // Reads every object whole, in random order, in one read transaction.
    virtual uint64_t getAll(Dataset& data) = 0;
    // Reads two fields of every object, in the order of the database.
    virtual uint64_t walk() = 0;
    // Replaces or removes every object, in random order, in one transaction.
    virtual void updateAll(Dataset& data) = 0;
    virtual void removeAll(Dataset& data) = 0;

    virtual uint64_t sizeOnDisk() = 0;
};

std::unique_ptr<Subject> makeQuillmereSubject(const std::string& directory, uint64_t maxSizeInKb);
std::unique_ptr<Subject> makeLmdbSubject(const std::string& directory, uint64_t maxSizeInKb);
std::unique_ptr<Subject> makeSqliteSubject(const std::string& directory);

// Steady state of the two that are compared by allocations; each in a database of its own.
AllocationCounts countQuillmereAllocations(const std::string& directory, Dataset& data);
AllocationCounts countLmdbAllocations(const std::string& directory, Dataset& data);

// Opens an empty database, calls `opened` and closes it again.
void openEmptyQuillmere(const std::string& directory, void (*opened)());
void openEmptyLmdb(const std::string& directory, void (*opened)());

}  // namespace bench
