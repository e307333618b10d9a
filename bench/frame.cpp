#include "frame.h"

#include <lmdb.h>
#include <quillmere/quillmere.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>

#include "measure.h"

namespace bench {

namespace {

constexpr const char* kCommonUsage =
    "  --objects    objects in the database, 1000000 by default\n"
    "  --runs       how often everything is repeated, 5 by default\n"
    "  --filter     only operations whose name contains the text\n"
    "  --core       processor core to stay on, by default the last one available\n"
    "  --cpu-time   count processor time instead of elapsed time: on a busy machine, but not for\n"
    "               durable puts, which wait for the disk\n"
    "  --directory  where the databases are made and removed, ./bench-data by default\n";

// Lower and upper end, and the middle.
struct Spread {
    double low, median, high;
};

Spread spreadOf(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t half = values.size() / 2;
    const double median =
        values.size() % 2 ? values[half] : (values[half - 1] + values[half]) / 2;
    return {values.front(), median, values.back()};
}

std::string withUnit(double rate) {
    char text[32];
    if (rate >= 1e6) {
        std::snprintf(text, sizeof text, "%.2f M", rate / 1e6);
    } else if (rate >= 1e3) {
        std::snprintf(text, sizeof text, "%.1f k", rate / 1e3);
    } else {
        std::snprintf(text, sizeof text, "%.1f", rate);
    }
    return text;
}

bool hasBase(const Operation& operation) { return operation.results.has(kLmdb); }

void printRatioRows(const std::vector<Operation>& operations, SubjectIndex base) {
    for (const Operation& operation : operations) {
        if (hasBase(operation) != (base == kLmdb)) continue;
        std::printf("%-40s", operation.name.c_str());
        for (size_t subject = 0; subject < kSubjectCount; ++subject) {
            if (subject == kLmdb || subject == base) continue;
            std::printf("  %-26s", operation.results.ratio(subject, base).c_str());
        }
        std::printf("\n");
    }
}

}  // namespace

// ---- arguments

uint32_t parseCount(const std::string& text) {
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.c_str(), &end, 10);
    if (text.empty() || *end || value == 0 || value > 100'000'000) {
        throw std::runtime_error("Not a usable number: " + text);
    }
    return static_cast<uint32_t>(value);
}

void parseSettings(int argc, char** argv, const char* usage, Settings& settings,
                   const OwnArgument& own) {
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        const size_t equals = argument.find('=');
        const std::string key = argument.substr(0, equals);
        const std::string value = equals == argument.npos ? "" : argument.substr(equals + 1);
        if (key == "--objects") settings.objects = parseCount(value);
        else if (key == "--runs") settings.runs = parseCount(value);
        else if (key == "--filter") settings.filter = value;
        else if (key == "--core") settings.core = std::atoi(value.c_str());
        else if (argument == "--cpu-time") settings.clock = CLOCK_PROCESS_CPUTIME_ID;
        else if (key == "--directory") settings.directory = value;
        else if (key == "--help") {
            std::printf("%s%s", usage, kCommonUsage);
            std::exit(0);
        }
        else if (!own(key, value)) {
            throw std::runtime_error("Unknown argument: " + argument + "\n" + usage +
                                     kCommonUsage);
        }
    }
    if (settings.core < 0) settings.core = lastAvailableCore();
}

int runMain(const char* name, const std::function<void()>& run) {
    try {
        run();
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", name, error.what());
        return 1;
    }
}

// ---- measuring

double Timer::now() const {
    timespec time{};
    clock_gettime(clock_, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

bool keepMatching(std::vector<Operation>& operations, const std::string& filter) {
    std::erase_if(operations, [&](const Operation& operation) {
        return operation.name.find(filter) == std::string::npos;
    });
    return !operations.empty();
}

void runInterleaved(std::vector<Operation>& operations, uint32_t runs) {
    for (uint32_t run = 0; run < runs; ++run) {
        for (Operation& operation : operations) {
            std::fprintf(stderr, "\rrun %u of %u: %-42s", run + 1, runs, operation.name.c_str());
            for (size_t i = 0; i < kSubjectCount; ++i) {
                const size_t subject = (run + i) % kSubjectCount;
                const auto rate = operation.measure(subject);
                if (rate) operation.results.add(subject, *rate);
            }
            operation.finished();
        }
    }
    std::fprintf(stderr, "\r%60s\r", "");
}

// ---- tables

std::string Results::rate(size_t subject) const {
    if (!has(subject)) return "-";
    const Spread spread = spreadOf(rates_[subject]);
    return withUnit(spread.median) + " (" + withUnit(spread.low) + ".." + withUnit(spread.high) +
           ")";
}

std::string Results::ratio(size_t subject, size_t base) const {
    if (!has(subject) || !has(base)) return "-";
    std::vector<double> ratios;
    for (size_t i = 0; i < rates_[subject].size(); ++i) {
        ratios.push_back(rates_[subject][i] / rates_[base][i]);
    }
    const Spread spread = spreadOf(std::move(ratios));
    char text[64];
    std::snprintf(text, sizeof text, "%.2f (%.2f..%.2f)", spread.median, spread.low, spread.high);
    return text;
}

void printHeader(const Settings& settings, const std::string& data) {
    std::cout << "Quillmere " << qmr_version_string() << ", "
              << mdb_version(nullptr, nullptr, nullptr) << ", SQLite " << sqlite3_libversion()
              << '\n';
    printMachine(std::cout, settings.directory);
    std::printf("data         %s\n", data.c_str());
    std::printf("method       %u interleaved runs on core %d, %s time; median (min..max)\n\n",
                settings.runs, settings.core,
                settings.clock == CLOCK_MONOTONIC ? "elapsed" : "processor");
}

void printTables(const std::vector<Operation>& operations, const char* unit) {
    std::printf("%-40s", unit);
    for (const char* name : kSubjectNames) std::printf("  %-26s", name);
    std::printf("\n");
    for (const Operation& operation : operations) {
        std::printf("%-40s", operation.name.c_str());
        for (size_t subject = 0; subject < kSubjectCount; ++subject) {
            std::printf("  %-26s", operation.results.rate(subject).c_str());
        }
        std::printf("\n");
    }
    if (std::any_of(operations.begin(), operations.end(), hasBase)) {
        std::printf("\n%-40s  %-26s  %-26s\n", "times the rate of raw LMDB", "Quillmere", "SQLite");
        printRatioRows(operations, kLmdb);
    }
    if (!std::all_of(operations.begin(), operations.end(), hasBase)) {
        std::printf("\n%-40s  %-26s\n", "times the rate of SQLite", "Quillmere");
        printRatioRows(operations, kSqlite);
    }
}

}  // namespace bench
