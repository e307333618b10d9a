#include "kv/memory/in_memory_store.h"

#include <utility>

#include "core/checks.h"
#include "core/error.h"
#include "core/files.h"
#include "core/store_options.h"
#include "kv/memory/in_memory_data.h"
#include "kv/memory/in_memory_provider.h"
#include "kv/memory/in_memory_registry.h"
#include "kv/memory/in_memory_transaction.h"
#include "kv/memory/wal_storage.h"

namespace quillmere {

namespace {

uint64_t fileSize(const std::string& path) {
    uint64_t size = 0;
    pathType(path, &size);
    return size;
}

}  // namespace

InMemoryStore::InMemoryStore(const StoreOptions& options)
    : directory_(options.directory),
      maxSizeInBytes_(bytesOfKb(options.maxDbSizeInKb)),
      hasLog_((options.walFlags & kWalEnabled) != 0) {
    if (hasLog_) {
        open(options);
    } else {
        data_ = InMemoryDataRegistry::instance().getOrCreate(directory_);
    }
}

InMemoryStore::~InMemoryStore() {
    close();
}

void InMemoryStore::open(const StoreOptions& options) {
    data_ = std::make_shared<InMemoryData>();
    data_->seal();
    auto wal = std::make_unique<WalStorage>(options);
    wal->load(*this);
    wal_ = std::move(wal);
}

void InMemoryStore::close() {
    std::shared_ptr<InMemoryData> data;
    {
        const std::lock_guard lock(mutex_);
        data.swap(data_);
    }
    wal_.reset();
}

uint32_t InMemoryStore::providerId() const {
    return hasLog_ ? kInMemoryWalProviderId : kInMemoryProviderId;
}

uint64_t InMemoryStore::sizeOnDisk() {
    return hasLog_ ? fileSize(snapshotFilePath(directory_)) + fileSize(walFilePath(directory_)) : 0;
}

uint64_t InMemoryStore::dbSize() {
    return currentData()->accountedSize();
}

std::shared_ptr<InMemoryData> InMemoryStore::currentData() const {
    const std::lock_guard lock(mutex_);
    CHECK_STATE_HERE(data_);
    return data_;
}

void InMemoryStore::commit(const std::shared_ptr<InMemoryData>& data) {
    if (!data->sealed()) throwIllegalState("Cannot commit an instance that is not sealed");
    std::shared_ptr<InMemoryData> replaced = data;
    if (!hasLog_) InMemoryDataRegistry::instance().commit(directory_, data);
    const std::lock_guard lock(mutex_);
    data_.swap(replaced);
}

std::unique_ptr<DbTransaction> InMemoryStore::createTransaction(bool readOnly, uint32_t flags) {
    return std::make_unique<InMemoryTransaction>(*this, readOnly, flags);
}

void InMemoryStore::dropAll(DbTransaction& dbTransaction) {
    CHECK_STATE_TEXT_AT(__LINE__, &dbTransaction.store() == this, "getDbTransaction",
                        "&dbTransaction.store() == this");
    static_cast<InMemoryTransaction&>(dbTransaction).clear();
}

}  // namespace quillmere
