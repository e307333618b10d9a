#pragma once

// The frame of every benchmark: its arguments, interleaved runs, medians with their spread.
//
// Within a run every operation is measured for all subjects in turn, so that whatever disturbs the
// machine disturbs all alike; the ratios are taken run by run for the same reason. Google Benchmark
// repeats one function after another and cannot interleave this way.

#include <time.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace bench {

// What is compared, in the order of the tables.
enum SubjectIndex : size_t { kQuillmere, kLmdb, kSqlite };
constexpr std::array<const char*, 3> kSubjectNames = {"Quillmere", "raw LMDB", "SQLite"};
constexpr size_t kSubjectCount = kSubjectNames.size();

struct Settings {
    uint32_t objects = 1'000'000;
    uint32_t runs = 5;
    int core = -1;  // the last one available
    clockid_t clock = CLOCK_MONOTONIC;
    std::string filter;
    std::string directory = "bench-data";
};

// Takes an argument of one benchmark; false if it does not know the key.
using OwnArgument = std::function<bool(const std::string& key, const std::string& value)>;
// Reads the arguments that all benchmarks have. The others, "--key=value", are offered to `own`.
// Throws for what nobody knows; prints the usage and ends the program for --help.
void parseSettings(int argc, char** argv, const char* usage, Settings& settings,
                   const OwnArgument& own);
uint32_t parseCount(const std::string& text);

// Runs a benchmark as the program; gives its exit code.
int runMain(const char* name, const std::function<void()>& run);

class Timer {
public:
    explicit Timer(clockid_t clock) : clock_(clock), start_(now()) {}
    double seconds() const { return now() - start_; }

private:
    double now() const;

    const clockid_t clock_;
    const double start_;
};

// The rates of each subject in each run. A subject may lack the operation.
class Results {
public:
    void add(size_t subject, double rate) { rates_[subject].push_back(rate); }
    bool has(size_t subject) const { return !rates_[subject].empty(); }
    // As a text; "-" for a subject that lacks the operation.
    std::string rate(size_t subject) const;
    std::string ratio(size_t subject, size_t base) const;

private:
    std::array<std::vector<double>, kSubjectCount> rates_;
};

struct Operation {
    std::string name;
    // Runs the operation once and gives its rate per second; nothing if the subject lacks it.
    std::function<std::optional<double>(size_t subject)> measure;
    // Called when all subjects have run it.
    std::function<void()> finished = [] {};
    Results results = {};
};

// Keeps the operations whose name contains the filter; false if none does.
bool keepMatching(std::vector<Operation>& operations, const std::string& filter);
// The first subject changes from run to run.
void runInterleaved(std::vector<Operation>& operations, uint32_t runs);

void printHeader(const Settings& settings, const std::string& data);
// Rates, then ratios to raw LMDB and, where operations lack one, to SQLite.
void printTables(const std::vector<Operation>& operations, const char* unit);

}  // namespace bench
