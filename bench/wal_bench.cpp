// Storage in memory and its files, and validation: each against what does the least that could do.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/bytes_writer.h"
#include "core/endian.h"
#include "core/store_options.h"
#include "dataset.h"
#include "frame.h"
#include "kv/db_cursor.h"
#include "kv/db_store.h"
#include "kv/db_transaction.h"
#include "kv/kv_log.h"
#include "kv/kv_validation.h"
#include "kv/lmdb/lmdb_provider.h"
#include "kv/memory/in_memory_provider.h"
#include "kv/memory/snapshot_reader.h"
#include "kv/memory/snapshot_writer.h"
#include "kv/memory/wal_file.h"
#include "kv/rle0.h"
#include "measure.h"
#include "raw_lmdb.h"

namespace bench {

namespace {

using namespace quillmere;

constexpr const char* kUsage =
    "usage: wal_bench [arguments]\n"
    "  --records    durable records in a log, 200 by default\n";

constexpr size_t kReference = 1;

struct WalSettings : Settings {
    WalSettings() { objects = 200'000; }
    uint32_t records = 200;
};

// What is done, by the library and by the reference, and how much of it there is for each second of
// time it takes.
struct Comparison {
    std::string name;
    std::string reference;
    double amount;  // bytes, records or objects
    std::function<void()> ours;
    std::function<void()> theirs;
};

struct CountingHandler : KvLogHandler {
    void put(const Bytes& key, const Bytes& value) override { bytes += key.size() + value.size(); }
    void remove(const Bytes&) override {}
    size_t bytes = 0;
};

class Descriptor {
public:
    Descriptor(const std::string& path, int flags) : fd_(open(path.c_str(), flags, 0644)) {
        if (fd_ < 0) throw std::runtime_error("Cannot open " + path);
    }
    ~Descriptor() { close(fd_); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    void write(const void* data, size_t size) const {
        if (::write(fd_, data, size) != static_cast<ssize_t>(size)) {
            throw std::runtime_error("Cannot write");
        }
    }
    void sync() const { fdatasync(fd_); }

private:
    const int fd_;
};

std::string readFile(const std::string& path) {
    std::string content(std::filesystem::file_size(path), '\0');
    std::ifstream(path, std::ios::binary).read(content.data(),
                                               static_cast<std::streamsize>(content.size()));
    return content;
}

class WalBench {
public:
    explicit WalBench(const WalSettings& settings)
        : settings_(settings), data_(settings.objects, 1) {
        std::filesystem::remove_all(settings.directory);
        std::filesystem::create_directories(settings.directory);
        memory_ = openStore("memory:bench");
        putAll(*memory_)->commit();
        lmdb_ = openStore(path("lmdb"));
        putAll(*lmdb_)->commit();
        emptyMemory_ = openStore("memory:empty");
        emptyLmdb_ = openStore(path("empty"));
        for (uint32_t id = 1; id <= data_.count(); ++id) map_[keyText(id)] = valueText(id);
        writeLog();
        log_.assign(buffer_.data(), buffer_.data() + writer_.position());
        saveSnapshot();
    }
    ~WalBench() { std::filesystem::remove_all(settings_.directory); }

    void run() {
        std::vector<Comparison> comparisons = all();
        std::vector<Operation> operations;
        for (const Comparison& comparison : comparisons) {
            operations.push_back({comparison.name,
                                  [this, &comparison](size_t subject) {
                                      return measure(comparison, subject);
                                  }});
        }
        printHeader(settings_, std::to_string(data_.count()) + " objects of " +
                                   std::to_string(data_.averageSize()) + " bytes on average");
        runInterleaved(operations, settings_.runs);
        std::printf("%-28s  %-30s  %-30s  %-20s  %s\n", "per second", "Quillmere", "reference",
                    "ratio", "the reference");
        for (size_t i = 0; i < operations.size(); ++i) {
            const Results& results = operations[i].results;
            std::printf("%-28s  %-30s  %-30s  %-20s  %s\n", operations[i].name.c_str(),
                        results.rate(kQuillmere).c_str(), results.rate(kReference).c_str(),
                        results.ratio(kQuillmere, kReference).c_str(),
                        comparisons[i].reference.c_str());
        }
    }

private:
    std::optional<double> measure(const Comparison& comparison, size_t subject) {
        if (subject > kReference || comparison.name.find(settings_.filter) == std::string::npos) {
            return std::nullopt;
        }
        const Timer timer(settings_.clock);
        subject == kQuillmere ? comparison.ours() : comparison.theirs();
        return comparison.amount / timer.seconds();
    }

    std::vector<Comparison> all() {
        const auto logBytes = static_cast<double>(log_.size());
        const auto fileBytes = static_cast<double>(std::filesystem::file_size(path("snapshot")));
        const auto lmdbBytes = static_cast<double>(lmdb_->sizeOnDisk());
        const double objects = data_.count();
        const double records = settings_.records;
        return {
            {"KV log write, bytes", "memcpy of key and value", pairBytes_, [&] { writeLog(); },
             [&] { copyPairs(); }},
            {"KV log read, bytes", "memcpy of key and value", pairBytes_, [&] { readLog(); },
             [&] { copyPairs(); }},
            {"RLE0 encode, bytes", "memcpy of the log", logBytes, [&] { encode(); },
             [&] { scratch_.assign(log_.begin(), log_.end()); }},
            {"RLE0 decode, bytes", "memcpy of the log", logBytes, [&] { decode(); },
             [&] { scratch_.assign(log_.begin(), log_.end()); }},
            {"WAL append, synced", "write and fdatasync", records, [&] { appendWal(true); },
             [&] { appendRaw(true); }},
            {"WAL append, not synced", "write", 100 * records, [&] { appendWal(false); },
             [&] { appendRaw(false); }},
            {"snapshot save, bytes", "read and write of the file, fdatasync", fileBytes,
             [&] { saveSnapshot(); }, [&] { copyFile(); }},
            {"snapshot load, bytes", "read and write of the file, fdatasync", fileBytes,
             [&] { loadSnapshot(); }, [&] { copyFile(); }},
            {"snapshot load, bytes", "read of the file, std::map of the same", fileBytes,
             [&] { loadSnapshot(); }, [&] { loadMap(); }},
            {"sequential put, objects", "std::map", objects, [&] { putAll(*emptyMemory_); },
             [&] { putIntoMap(); }},
            {"sequential put, objects", "LMDB, the same cursor", objects,
             [&] { putAll(*emptyMemory_); }, [&] { putAll(*emptyLmdb_); }},
            {"random get, objects", "std::map", objects, [&] { getAll(*memory_); },
             [&] { getFromMap(); }},
            {"random get, objects", "LMDB, the same cursor", objects, [&] { getAll(*memory_); },
             [&] { getAll(*lmdb_); }},
            {"validation, bytes", "mdb_dump >/dev/null", lmdbBytes, [&] { validate(); },
             [&] { dump(); }},
        };
    }

    // ---- the log

    void writeLog() {
        writer_.reset();
        kvLog_.reset();
        pairBytes_ = 0;
        for (uint32_t id = 1; id <= data_.count(); ++id) {
            const Object object = data_.object(id);
            kvLog_.writePut(Bytes(key_.set(id)->mv_data, 8), Bytes(object.data, object.size));
            pairBytes_ += 8 + static_cast<double>(object.size);
        }
    }
    void readLog() {
        CountingHandler handler;
        KvLogReader(Bytes(log_.data(), log_.size()), handler).readAll();
        if (static_cast<double>(handler.bytes) != pairBytes_) throw std::runtime_error("Lost data");
    }
    void copyPairs() {
        scratch_.clear();
        for (uint32_t id = 1; id <= data_.count(); ++id) {
            const Object object = data_.object(id);
            const auto* const key = static_cast<const uint8_t*>(key_.set(id)->mv_data);
            scratch_.insert(scratch_.end(), key, key + 8);
            scratch_.insert(scratch_.end(), object.data, object.data + object.size);
        }
    }
    void encode() {
        encoded_.resize(2 * log_.size());
        encodedSize_ = rle0Encode(log_.data(), log_.size(), encoded_.data(), encoded_.size());
    }
    void decode() {
        if (encodedSize_ == 0) encode();
        scratch_.resize(log_.size() + 1);
        if (rle0Decode(encoded_.data(), encodedSize_, scratch_.data(), log_.size()) !=
            log_.size()) {
            throw std::runtime_error("Lost data");
        }
    }

    // ---- files

    void appendWal(bool synced) {
        std::filesystem::remove(path("wal"));
        WalFile wal({.path = path("wal"), .syncs = synced});
        wal.openAndApplyFile(*memory_, nullptr);
        for (uint32_t i = 0; i < settings_.records * (synced ? 1 : 100); ++i) {
            const uint32_t id = 1 + i % data_.count();
            const Object object = data_.object(id);
            wal.beginTx();
            wal.put(key_.set(id)->mv_data, 8, object.data, object.size);
            wal.commitTx();
        }
        appendedBytes_[synced] = wal.fileSize();
    }
    // Writes of the same number and bytes in all.
    void appendRaw(bool synced) {
        if (appendedBytes_[synced] == 0) appendWal(synced);
        const Descriptor file(path("raw"), O_WRONLY | O_CREAT | O_TRUNC);
        const size_t records = settings_.records * (synced ? 1 : 100);
        const std::vector<uint8_t> record(appendedBytes_[synced] / records, 'x');
        for (size_t i = 0; i < records; ++i) {
            file.write(record.data(), record.size());
            if (synced) file.sync();
        }
    }
    void saveSnapshot() {
        const auto tx = begin(*memory_, true);
        SnapshotWriter(path("snapshot"), 0, {}).save(*tx->createDbCursor());
    }
    void loadSnapshot() {
        SnapshotReader reader(path("snapshot"));
        reader.openFile();
        reader.checkIntegrity();
        reader.readHeader();
        const auto empty = openStore("memory:loaded");
        const auto tx = begin(*empty, false);
        reader.readContent(*tx->createDbCursor());
    }
    void copyFile() {
        const std::string content = readFile(path("snapshot"));
        const Descriptor file(path("copy"), O_WRONLY | O_CREAT | O_TRUNC);
        file.write(content.data(), content.size());
        file.sync();
    }
    void loadMap() {
        const std::string content = readFile(path("snapshot"));
        if (content.empty()) throw std::runtime_error("No snapshot");
        putIntoMap();
    }

    // ---- stores

    std::unique_ptr<DbStore> openStore(const std::string& directory) {
        StoreOptions options;
        options.directory = directory;
        options.maxDbSizeInKb = 16 << 20;
        if (directory.starts_with("memory:")) return InMemoryProvider(false).createStore(options);
        std::filesystem::create_directories(directory);
        return LmdbProvider().createStore(options);
    }
    static std::unique_ptr<DbTransaction> begin(DbStore& store, bool readOnly) {
        auto tx = store.createTransaction(readOnly, 0);
        tx->begin();
        return tx;
    }
    // In one transaction, which is given back.
    std::unique_ptr<DbTransaction> putAll(DbStore& store) {
        auto tx = begin(store, false);
        const auto cursor = tx->createDbCursor();
        for (uint32_t id = 1; id <= data_.count(); ++id) {
            const Object object = data_.object(id);
            cursor->put(key_.set(id)->mv_data, 8, object.data, object.size);
        }
        return tx;
    }
    void getAll(DbStore& store) {
        const auto tx = begin(store, true);
        const auto cursor = tx->createDbCursor();
        Bytes value;
        for (const uint32_t id : data_.randomOrder()) {
            cursor->get(Bytes(key_.set(id)->mv_data, 8), value);
            sum_ += sumOfTwoFields(value.data());
        }
    }
    void validate() {
        const auto tx = begin(*lmdb_, true);
        lmdb_->validatePages(*tx, 0, true);
        if (validateKv(*tx->createDbCursor()).pairs != data_.count()) {
            throw std::runtime_error("Lost data");
        }
    }
    void dump() {
        const std::string command = "mdb_dump " + path("lmdb") + " >/dev/null";
        if (std::system(command.c_str()) != 0) throw std::runtime_error("Cannot run mdb_dump");
    }

    void putIntoMap() {
        std::map<std::string, std::string> map;
        for (uint32_t id = 1; id <= data_.count(); ++id) {
            map.emplace_hint(map.end(), keyText(id), valueText(id));
        }
    }
    void getFromMap() {
        for (const uint32_t id : data_.randomOrder()) {
            sum_ += sumOfTwoFields(map_.find(keyText(id))->second.data());
        }
    }
    std::string keyText(uint32_t id) {
        return {static_cast<const char*>(key_.set(id)->mv_data), 8};
    }
    std::string valueText(uint32_t id) {
        const Object object = data_.object(id);
        return {reinterpret_cast<const char*>(object.data), object.size};
    }

    std::string path(const char* name) const { return settings_.directory + "/" + name; }

    const WalSettings settings_;
    Dataset data_;
    ObjectKey key_{1};
    std::unique_ptr<DbStore> memory_;
    std::unique_ptr<DbStore> lmdb_;
    std::unique_ptr<DbStore> emptyMemory_;
    std::unique_ptr<DbStore> emptyLmdb_;
    std::map<std::string, std::string> map_;
    Bytes buffer_;
    BytesWriter writer_{buffer_};
    KvLog kvLog_{writer_};
    double pairBytes_ = 0;
    std::vector<uint8_t> log_;
    std::vector<uint8_t> encoded_;
    size_t encodedSize_ = 0;
    std::vector<uint8_t> scratch_;
    uint64_t appendedBytes_[2] = {};
    uint64_t sum_ = 0;
};

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
    return bench::runMain("wal_bench", [&] {
        bench::WalSettings settings;
        bench::parseSettings(argc, argv, bench::kUsage, settings,
                             [&](const std::string& key, const std::string& value) {
                                 if (key != "--records") return false;
                                 settings.records = bench::parseCount(value);
                                 return true;
                             });
        bench::pinToCore(settings.core);
        bench::WalBench(settings).run();
    });
}
