// Create, read, update and delete: Quillmere against what it is built on and what a user would pick
// instead. Within a run every operation is measured for all subjects in turn, so that whatever
// disturbs the machine disturbs all alike; the ratios are taken run by run for the same reason.
// Google Benchmark repeats one function after another and cannot interleave this way.

#include <sqlite3.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <lmdb.h>
#include <quillmere/quillmere.h>

#include "dataset.h"
#include "measure.h"
#include "subject.h"

namespace bench {

namespace {

struct Settings {
    uint32_t objects = 1'000'000;
    uint32_t singles = 5'000;
    uint32_t runs = 5;
    int core = -1;
    clockid_t clock = CLOCK_MONOTONIC;
    std::string filter;
    std::string directory = "bench-data";
    std::string openOnly;  // of this program started by itself to measure an open store
};

constexpr const char* kUsage =
    "usage: crud_bench [--objects=N] [--singles=N] [--runs=N] [--filter=TEXT] [--core=N]\n"
    "                  [--cpu-time] [--directory=DIR]\n"
    "  --objects    objects in the database, 1000000 by default\n"
    "  --singles    objects put in a durable transaction each, 5000 by default\n"
    "  --runs       how often everything is repeated, 5 by default\n"
    "  --filter     only operations whose name contains TEXT\n"
    "  --core       processor core to stay on, by default the last one available\n"
    "  --cpu-time   count processor time instead of elapsed time: on a busy machine, but not for\n"
    "               durable puts, which wait for the disk\n"
    "  --directory  where the databases are made and removed, ./bench-data by default\n";

enum class Content { kEmpty, kAll, kOther };

struct Operation {
    const char* name;
    bool durable;
    Content before;
    Content after;
    std::function<uint32_t(Subject&, Dataset&)> run;  // gives the number of objects
};

std::vector<Operation> makeOperations(const Settings& settings) {
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
constexpr size_t kQuillmere = 0, kLmdb = 1, kSqlite = 2;

Subjects makeSubjects(const Settings& settings) {
    // Room for every page to be written anew in one transaction.
    const uint64_t maxSizeInKb = std::max<uint64_t>(1024 * 1024, settings.objects);
    Subjects subjects;
    subjects.push_back(makeQuillmereSubject(settings.directory + "/quillmere", maxSizeInKb));
    subjects.push_back(makeLmdbSubject(settings.directory + "/lmdb", maxSizeInKb));
    subjects.push_back(makeSqliteSubject(settings.directory + "/sqlite"));
    return subjects;
}

double secondsOf(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t half = values.size() / 2;
    return values.size() % 2 ? values[half] : (values[half - 1] + values[half]) / 2;
}

std::string withUnit(double rate) {
    char text[32];
    if (rate >= 1e6) {
        std::snprintf(text, sizeof text, "%.2f M", rate / 1e6);
    } else {
        std::snprintf(text, sizeof text, "%.1f k", rate / 1e3);
    }
    return text;
}

// The objects per second of each subject in each run.
class Results {
public:
    explicit Results(size_t subjects) : rates_(subjects) {}

    void add(size_t subject, double rate) { rates_[subject].push_back(rate); }

    std::string rate(size_t subject) const {
        const auto& rates = rates_[subject];
        const auto [low, high] = std::minmax_element(rates.begin(), rates.end());
        return withUnit(median(rates)) + " (" + withUnit(*low) + ".." + withUnit(*high) + ")";
    }
    std::string ratio(size_t subject, size_t base) const {
        std::vector<double> ratios;
        for (size_t i = 0; i < rates_[subject].size(); ++i) {
            ratios.push_back(rates_[subject][i] / rates_[base][i]);
        }
        const auto [low, high] = std::minmax_element(ratios.begin(), ratios.end());
        char text[64];
        std::snprintf(text, sizeof text, "%.2f (%.2f..%.2f)", median(ratios), *low, *high);
        return text;
    }

private:
    std::vector<std::vector<double>> rates_;
};

class CrudBench {
public:
    explicit CrudBench(const Settings& settings)
        : settings_(settings),
          data_(settings.objects, 1),
          operations_(makeOperations(settings)),
          subjects_(makeSubjects(settings)) {
        std::erase_if(operations_, [&](const Operation& operation) {
            return std::string(operation.name).find(settings.filter) == std::string::npos;
        });
        if (operations_.empty()) {
            throw std::runtime_error("No operation matches " + settings.filter);
        }
        results_.assign(operations_.size(), Results(subjects_.size()));
    }

    void run() {
        printHeader();
        for (uint32_t run = 0; run < settings_.runs; ++run) {
            for (size_t i = 0; i < operations_.size(); ++i) {
                std::fprintf(stderr, "\rrun %u of %u: %-40s", run + 1, settings_.runs,
                             operations_[i].name);
                measure(run, i);
            }
        }
        std::fprintf(stderr, "\r%60s\r", "");
        printTable();
    }

private:
    // The first subject changes from run to run.
    void measure(uint32_t run, size_t index) {
        for (size_t i = 0; i < subjects_.size(); ++i) {
            const size_t subject = (run + i) % subjects_.size();
            prepare(operations_[index], *subjects_[subject]);
            const double start = secondsOf(settings_.clock);
            const uint32_t objects = operations_[index].run(*subjects_[subject], data_);
            results_[index].add(subject, objects / (secondsOf(settings_.clock) - start));
        }
        content_ = operations_[index].after;
    }

    // Empty means a fresh database: one whose objects were removed keeps its pages.
    void prepare(const Operation& operation, Subject& subject) {
        if (operation.before == Content::kAll && content_ == Content::kAll) {
            data_.changeValues();
            return;
        }
        data_.setIds(subject.drawsIds());
        subject.reset(operation.durable);
        if (operation.before == Content::kAll) subject.put(data_, data_.count(), data_.count());
    }

    void printHeader() const {
        std::cout << "Quillmere " << qmr_version_string() << ", "
                  << mdb_version(nullptr, nullptr, nullptr) << ", SQLite " << sqlite3_libversion()
                  << '\n';
        printMachine(std::cout, settings_.directory);
        std::printf("data         %u objects of %.1f bytes on average, %u for durable singles\n",
                    data_.count(), data_.averageSize(), settings_.singles);
        std::printf("method       %u interleaved runs on core %d, %s time; median (min..max)\n\n",
                    settings_.runs, settings_.core,
                    settings_.clock == CLOCK_MONOTONIC ? "elapsed" : "processor");
    }

    void printTable() const {
        std::printf("%-38s", "objects per second");
        for (const auto& subject : subjects_) std::printf("  %-26s", subject->name().c_str());
        std::printf("\n");
        for (size_t i = 0; i < operations_.size(); ++i) {
            std::printf("%-38s", operations_[i].name);
            for (size_t s = 0; s < subjects_.size(); ++s) {
                std::printf("  %-26s", results_[i].rate(s).c_str());
            }
            std::printf("\n");
        }
        std::printf("\n%-38s  %-26s  %-26s\n", "times the rate of raw LMDB", "Quillmere", "SQLite");
        for (size_t i = 0; i < operations_.size(); ++i) {
            std::printf("%-38s  %-26s  %-26s\n", operations_[i].name,
                        results_[i].ratio(kQuillmere, kLmdb).c_str(),
                        results_[i].ratio(kSqlite, kLmdb).c_str());
        }
    }

    const Settings settings_;
    Dataset data_;
    std::vector<Operation> operations_;
    const Subjects subjects_;
    std::vector<Results> results_;
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
    std::printf("%lld %lld\n", static_cast<long long>(now.dirtyKb - beforeOpen.dirtyKb),
                static_cast<long long>(now.cleanKb - beforeOpen.cleanKb));
}

// Runs in a fresh process, whose memory nothing has touched yet.
void openOnly(const Settings& settings) {
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
    long long dirty = 0, clean = 0;
    const int fields = std::fscanf(pipe, "%lld %lld", &dirty, &clean);
    const int status = pclose(pipe);
    if (fields != 2 || status != 0) throw std::runtime_error("Failed: " + command);
    return {static_cast<uint64_t>(dirty), static_cast<uint64_t>(clean)};
}

void printMemory(const Settings& settings) {
    const auto quillmere = growthOnOpen(settings, "quillmere");
    const auto lmdb = growthOnOpen(settings, "lmdb");
    std::printf("\n%-38s  %-26s  %-26s\n", "private memory of an empty store, KiB", "Quillmere",
                "raw LMDB");
    std::printf("%-38s  %-26lu  %-26lu\n", "written pages", quillmere.dirtyKb, lmdb.dirtyKb);
    std::printf("%-38s  %-26lu  %-26lu\n", "pages of files, code included", quillmere.cleanKb,
                lmdb.cleanKb);
}

uint32_t parseCount(const std::string& text) {
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.c_str(), &end, 10);
    if (text.empty() || *end || value == 0 || value > 100'000'000) {
        throw std::runtime_error("Not a usable number: " + text + "\n" + kUsage);
    }
    return static_cast<uint32_t>(value);
}

Settings parseSettings(int argc, char** argv) {
    Settings settings;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        const size_t equals = argument.find('=');
        const std::string key = argument.substr(0, equals);
        const std::string value = equals == argument.npos ? "" : argument.substr(equals + 1);
        if (key == "--objects") settings.objects = parseCount(value);
        else if (key == "--singles") settings.singles = parseCount(value);
        else if (key == "--runs") settings.runs = parseCount(value);
        else if (key == "--filter") settings.filter = value;
        else if (key == "--core") settings.core = std::atoi(value.c_str());
        else if (argument == "--cpu-time") settings.clock = CLOCK_PROCESS_CPUTIME_ID;
        else if (key == "--directory") settings.directory = value;
        else if (key == "--open-only") settings.openOnly = value;
        else if (key == "--help") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        }
        else throw std::runtime_error("Unknown argument: " + argument + "\n" + kUsage);
    }
    settings.singles = std::min(settings.singles, settings.objects);
    if (settings.core < 0) settings.core = lastAvailableCore();
    return settings;
}

void runBench(const Settings& settings) {
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
    try {
        bench::runBench(bench::parseSettings(argc, argv));
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "crud_bench: %s\n", error.what());
        return 1;
    }
}
