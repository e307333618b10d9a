// Queries, and puts into entities with indexes: Quillmere against raw LMDB with index keys made by
// hand, where that is a few lines, and against SQLite.

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "frame.h"
#include "measure.h"
#include "orders.h"
#include "query_subject.h"

namespace bench {

namespace {

constexpr const char* kUsage = "usage: query_bench [arguments]\n";
constexpr uint32_t kAllIndexes = 3;
constexpr uint32_t kLookups = 50'000;

// How the rate of a question is counted.
enum class Per { kAnswer, kObject };

struct Asked {
    const char* name;
    Question question;
    Per per;
    std::vector<uint32_t> numbers;
};

std::vector<uint32_t> randomNumbers(uint32_t count, uint32_t end) {
    std::mt19937 random(6);
    std::vector<uint32_t> numbers(count);
    for (uint32_t& n : numbers) n = static_cast<uint32_t>(random() % end);
    return numbers;
}

std::vector<Asked> allQuestions(uint32_t objects) {
    const uint32_t values = valueCount(objects);
    const auto lookups = randomNumbers(std::min(kLookups, values), values);
    const std::vector<uint32_t> few = {31, 43, 57};
    const std::vector<uint32_t> regions = randomNumbers(20, 100);
    using enum Question;
    return {
        {"look-up by integer, 10 objects fetched", kByInteger, Per::kAnswer, lookups},
        {"look-up by string, 10 objects fetched", kByString, Per::kAnswer, lookups},
        {"look-up by integer, counted only", kCountByInteger, Per::kAnswer, lookups},
        {"look-up by integer, IDs only", kIdsByInteger, Per::kAnswer, lookups},
        {"scan with two scalar conditions", kScan, Per::kObject, few},
        {"scan with an in-set of 20", kInSet, Per::kObject, few},
        {"scan for a text, case-sensitive", kContains, Per::kObject, few},
        {"scan for a text, any case", kContainsAnyCase, Per::kObject, few},
        {"ordered top 10", kTop10, Per::kObject, few},
        {"link: orders of 1 % of the groups", kLink, Per::kAnswer, regions},
        {"sum of an integer", kSum, Per::kObject, few},
        {"average of a double", kAverage, Per::kObject, few},
        {"distinct count of an integer", kDistinct, Per::kObject, few},
    };
}

class QueryBench {
public:
    explicit QueryBench(const Settings& settings)
        : settings_(settings), orders_(makeOrders(settings.objects)),
          groups_(makeGroups(settings.objects)), questions_(allQuestions(settings.objects)) {
        std::erase_if(questions_, [&](const Asked& asked) {
            return std::string(asked.name).find(settings.filter) == std::string::npos;
        });
        const uint64_t maxSizeInKb = std::max<uint64_t>(2 * 1024 * 1024, 2 * settings.objects);
        subjects_.push_back(
            makeQuillmereQuerySubject(settings.directory + "/quillmere", maxSizeInKb));
        subjects_.push_back(makeLmdbQuerySubject(settings.directory + "/lmdb", maxSizeInKb));
        subjects_.push_back(makeSqliteQuerySubject(settings.directory + "/sqlite"));
    }

    void run() {
        char data[120];
        std::snprintf(data, sizeof data, "%u orders of %.1f bytes on average, %u groups",
                      orders_.count(), orders_.averageSize(), groups_.count());
        printHeader(settings_, data);
        auto puts = makePuts();
        auto asks = makeAsks();
        const bool anyPuts = keepMatching(puts, settings_.filter);
        if (!anyPuts && asks.empty()) {
            throw std::runtime_error("No operation matches " + settings_.filter);
        }
        if (anyPuts) {
            runInterleaved(puts, settings_.runs);
            printTables(puts, "puts per second, in one transaction");
            std::printf("\n");
        }
        if (asks.empty()) return;
        for (size_t subject = 0; subject < kSubjectCount; ++subject) fill(subject);
        checkThatAllAnswerTheSame();
        runInterleaved(asks, settings_.runs);
        printTables(asks, "answers or scanned objects per second");
        printAllocations();
    }

private:
    std::vector<Operation> makePuts() {
        std::vector<Operation> puts;
        for (const uint32_t indexes : {0u, 1u, 3u}) {
            puts.push_back({"bulk put, " + std::to_string(indexes) + " indexes",
                            [this, indexes](size_t subject) {
                                subjects_[subject]->reset(indexes);
                                return put(subject);
                            }});
        }
        return puts;
    }

    std::vector<Operation> makeAsks() {
        std::vector<Operation> asks;
        for (const Asked& asked : questions_) {
            asks.push_back({asked.name,
                            [this, &asked](size_t subject) { return measure(asked, subject); }});
        }
        return asks;
    }

    double put(size_t subject) {
        orders_.setIds(subject == kQuillmere);  // which draws them
        const Timer timer(settings_.clock);
        subjects_[subject]->putOrders(orders_);
        return orders_.count() / timer.seconds();
    }

    void fill(size_t subject) {
        subjects_[subject]->reset(kAllIndexes);
        groups_.setIds(subject == kQuillmere);
        subjects_[subject]->putGroups(groups_);
        put(subject);
    }

    std::optional<double> measure(const Asked& asked, size_t subject) {
        const Timer timer(settings_.clock);
        if (!subjects_[subject]->ask(asked.question, asked.numbers)) return std::nullopt;
        const double answers = static_cast<double>(asked.numbers.size());
        return answers * (asked.per == Per::kObject ? orders_.count() : 1) / timer.seconds();
    }

    // A benchmark that skips work would show as a wrong answer. Also warms everything up.
    void checkThatAllAnswerTheSame() {
        for (const Asked& asked : questions_) {
            const uint64_t expected = *subjects_[kSqlite]->ask(asked.question, asked.numbers);
            for (const size_t subject : {kQuillmere, kLmdb}) {
                const auto answer = subjects_[subject]->ask(asked.question, asked.numbers);
                if (!answer || *answer == expected) continue;
                throw std::runtime_error(std::string(kSubjectNames[subject]) +
                                         " and SQLite differ: " + asked.name + ", " + std::to_string(*answer) + " and " +
                                         std::to_string(expected));
            }
        }
    }

    // Of Quillmere, in the steady state.
    void printAllocations() {
        std::printf("\n%-40s  %s\n", "heap allocations of Quillmere", "per answer");
        for (const Asked& asked : questions_) {
            QuerySubject& quillmere = *subjects_[kQuillmere];
            quillmere.ask(asked.question, asked.numbers);
            const uint64_t before = allocationCount();
            quillmere.ask(asked.question, asked.numbers);
            const auto allocations = static_cast<double>(allocationCount() - before);
            std::printf("%-40s  %.2f\n", asked.name,
                        allocations / static_cast<double>(asked.numbers.size()));
        }
    }

    const Settings settings_;
    Dataset orders_;
    Dataset groups_;
    std::vector<Asked> questions_;
    std::vector<std::unique_ptr<QuerySubject>> subjects_;
};

void runBench(int argc, char** argv) {
    Settings settings;
    parseSettings(argc, argv, kUsage, settings,
                  [](const std::string&, const std::string&) { return false; });
    std::filesystem::create_directories(settings.directory);
    pinToCore(settings.core);
    QueryBench(settings).run();
    std::error_code notEmpty;
    std::filesystem::remove(settings.directory, notEmpty);
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
    return bench::runMain("query_bench", [&] { bench::runBench(argc, argv); });
}
