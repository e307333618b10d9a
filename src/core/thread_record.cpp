#include "core/thread_record.h"

namespace quillmere {

namespace {

// The record is never destroyed, since stores that close while a thread ends still log and report
// errors; only the heap memory of its message is given back.
union RecordStorage {
    constexpr RecordStorage() : record() {}
    ~RecordStorage() {}

    ThreadRecord record;
};

struct MessageRelease {
    explicit MessageRelease(ThreadRecord& record) : record(record) {}
    ~MessageRelease() { std::string().swap(record.errorMessage); }

    ThreadRecord& record;
};

}  // namespace

ThreadRecord& threadRecord() noexcept {
    thread_local RecordStorage storage;
    thread_local MessageRelease release(storage.record);
    return release.record;
}

}  // namespace quillmere
