// Create, read, update and delete: Quillmere against what it is built on and what a user would pick
// instead.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "dataset.h"
#include "frame.h"
#include "measure.h"
#include "subject.h"

namespace bench {

namespace {

struct CrudSettings : Settings {
    uint32_t singles = 5'000;
    std::string openOnly;  // of this program started by itself to measure an open store
};

constexpr const char* kUsage =
    "usage: crud_bench [--singles=N] [common arguments]\n"
    "  --singles    objects put in a durable transaction each, 5000 by default\n";

enum class Content { kEmpty, kAll, kOther };

struct Work {
    const char* name;
    bool durable;
    Content before;
    Content after;
    std::function<uint32_t(Subject&, Dataset&)> run;  // gives the number of objects
};

std::vector<Work> makeWorks(const CrudSettings& settings) {
    const uint32_t singles = settings.singles;
    using enum Content;
    return {
        {"bulk put, ID order, one transaction", false, kEmpty, kAll,
         [](Subject& s, Dataset& d) { return s.put(d, d.count(), d.count()), d.count(); }},
        {"random get, whole object", false, kAll, kAll,
         [](Subject& s, Dataset& d) { return s.getAll(d), d.count(); }},
        {"walk, reading two fields", false, kAll, kAll,
         [](Subject& s, Dataset& d) { return s.walk(), d.count(); }},
        {"update, random order, one transaction", false, kAll, kAll,
         [](Subject& s, Dataset& d) { return s.updateAll(d), d.count(); }},
        {"delete, random order, one transaction", false, kAll, kEmpty,
         [](Subject& s, Dataset& d) { return s.removeAll(d), d.count(); }},
        {"durable put, batches of 1000", true, kEmpty, kOther,
         [](Subject& s, Dataset& d) { return s.put(d, d.count(), 1000), d.count(); }},
        {"durable put, one by one", true, kEmpty, kOther,
         [singles](Subject& s, Dataset& d) { return s.put(d, singles, 1), singles; }},
    };
}

using Subjects = std::vector<std::unique_ptr<Subject>>;

Subjects makeSubjects(const Settings& settings) {
    // Room for every page to be written anew in one transaction.
    const uint64_t maxSizeInKb = std::max<uint64_t>(1024 * 1024, settings.objects);
    Subjects subjects;
    subjects.push_back(makeQuillmereSubject(settings.directory + "/quillmere", maxSizeInKb));
    subjects.push_back(makeLmdbSubject(settings.directory + "/lmdb", maxSizeInKb));
    subjects.push_back(makeSqliteSubject(settings.directory + "/sqlite"));
    return subjects;
}

class CrudBench {
public:
    explicit CrudBench(const CrudSettings& settings)
        : settings_(settings), data_(settings.objects, 1), subjects_(makeSubjects(settings)) {}

    void run() {
        std::vector<Operation> operations;
        for (const Work& work : makeWorks(settings_)) {
            operations.push_back({work.name, [this, work](size_t i) { return measure(work, i); },
                                  [this, work] { content_ = work.after; }});
        }
        if (!keepMatching(operations, settings_.filter)) {
            throw std::runtime_error("No operation matches " + settings_.filter);
        }
        char data[100];
        std::snprintf(data, sizeof data,
                      "%u objects of %.1f bytes on average, %u for durable singles", data_.count(),
                      data_.averageSize(), settings_.singles);
        printHeader(settings_, data);
        runInterleaved(operations, settings_.runs);
        printTables(operations, "objects per second");
    }

private:
    double measure(const Work& work, size_t subject) {
        prepare(work, *subjects_[subject]);
        const Timer timer(settings_.clock);
        const uint32_t objects = work.run(*subjects_[subject], data_);
        return objects / timer.seconds();
    }

    // Empty means a fresh database: one whose objects were removed keeps its pages.
    void prepare(const Work& work, Subject& subject) {
        if (work.before == Content::kAll && content_ == Content::kAll) {
            data_.changeValues();
            return;
        }
        data_.setIds(subject.drawsIds());
        subject.reset(work.durable);
        if (work.before == Content::kAll) subject.put(data_, data_.count(), data_.count());
    }

    const CrudSettings settings_;
    Dataset data_;
    const Subjects subjects_;
    Content content_ = Content::kOther;  // of every subject's database between operations
};

// All subjects must read the same: a benchmark that skips work would show as a wrong sum.
void checkThatAllReadTheSame(const Settings& settings) {
    Dataset data(std::min<uint32_t>(settings.objects, 10'000), 2);
    std::vector<uint64_t> sums;
    for (const auto& subject : makeSubjects(settings)) {
        data.setIds(subject->drawsIds());
        subject->reset(false);
        subject->put(data, data.count(), 100);
        subject->updateAll(data);
        const uint64_t got = subject->getAll(data), walked = subject->walk();
        subject->removeAll(data);
        if (subject->walk() != 0) {
            throw std::runtime_error(subject->name() + " kept removed objects");
        }
        if (sums.empty()) sums = {got, walked};
        if (sums != std::vector<uint64_t>{got, walked}) {
            throw std::runtime_error(subject->name() + " read other bytes than the one before");
        }
    }
}

void printAllocations(const Settings& settings) {
    Dataset data(4 * kAllocationSample, 3);
    data.setIds(true);
    const std::string directory = settings.directory + "/allocations";
    const auto quillmere = countQuillmereAllocations(directory, data);
    std::filesystem::remove_all(directory);
    const auto lmdb = countLmdbAllocations(directory, data);
    std::filesystem::remove_all(directory);
    const auto row = [](const char* name, uint64_t ours, uint64_t theirs) {
        std::printf("%-38s  %-26.3f  %-26.3f\n", name, double(ours) / kAllocationSample,
                    double(theirs) / kAllocationSample);
    };
    std::printf("\n%-38s  %-26s  %-26s\n", "heap allocations per operation", "Quillmere",
                "raw LMDB");
    row("put of a new object", quillmere.insert, lmdb.insert);
    row("put over an object", quillmere.update, lmdb.update);
    row("get", quillmere.get, lmdb.get);
    row("step of a cursor", quillmere.step, lmdb.step);
}

PrivateMemory beforeOpen;

void printGrowth() {
    const PrivateMemory now = privateMemory();
    std::printf("\nmemory %lld %lld\n", static_cast<long long>(now.anonymousKb - beforeOpen.anonymousKb),
                static_cast<long long>(now.fileKb - beforeOpen.fileKb));
}

// Runs in a fresh process, whose memory nothing has touched yet.
void openOnly(const CrudSettings& settings) {
    const std::string directory = settings.directory + "/empty";
    std::filesystem::remove_all(directory);
    beforeOpen = privateMemory();
    if (settings.openOnly == "quillmere") {
        openEmptyQuillmere(directory, printGrowth);
    } else {
        openEmptyLmdb(directory, printGrowth);
    }
    std::filesystem::remove_all(directory);
}

PrivateMemory growthOnOpen(const Settings& settings, const char* subject) {
    const std::string program = std::filesystem::read_symlink("/proc/self/exe");
    const std::string command = "'" + program + "' --open-only=" + subject + " --directory='" +
                                settings.directory + "'";
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) throw std::runtime_error("Cannot start " + command);
    long long anonymous = 0, file = 0;
    char line[256];
    int fields = 0;
    while (fields != 2 && std::fgets(line, sizeof line, pipe)) {  // the store logs as well
        fields = std::sscanf(line, "memory %lld %lld", &anonymous, &file);
    }
    const int status = pclose(pipe);
    if (fields != 2 || status != 0) throw std::runtime_error("Failed: " + command);
    return {anonymous, file};
}

void printMemory(const Settings& settings) {
    const auto quillmere = growthOnOpen(settings, "quillmere");
    const auto lmdb = growthOnOpen(settings, "lmdb");
    std::printf("\n%-38s  %-26s  %-26s\n", "private memory of an empty store, KiB", "Quillmere",
                "raw LMDB");
    std::printf("%-38s  %-26ld  %-26ld\n", "own pages", quillmere.anonymousKb, lmdb.anonymousKb);
    std::printf("%-38s  %-26ld  %-26ld\n", "pages of files, code included", quillmere.fileKb,
                lmdb.fileKb);
}

CrudSettings parseArguments(int argc, char** argv) {
    CrudSettings settings;
    parseSettings(argc, argv, kUsage, settings,
                  [&](const std::string& key, const std::string& value) {
                      if (key == "--singles") settings.singles = parseCount(value);
                      else if (key == "--open-only") settings.openOnly = value;
                      else return false;
                      return true;
                  });
    settings.singles = std::min(settings.singles, settings.objects);
    return settings;
}

void runBench(const CrudSettings& settings) {
    std::filesystem::create_directories(settings.directory);
    if (!settings.openOnly.empty()) return openOnly(settings);
    pinToCore(settings.core);
    checkThatAllReadTheSame(settings);
    CrudBench(settings).run();
    if (settings.filter.empty()) {
        printAllocations(settings);
        printMemory(settings);
    }
    std::error_code notEmpty;
    std::filesystem::remove(settings.directory, notEmpty);
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
    return bench::runMain("crud_bench",
                          [&] { bench::runBench(bench::parseArguments(argc, argv)); });
}
