#include "core/log.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "core/hash.h"
#include "core/stop_watch.h"

namespace quillmere {
namespace {

int32_t numberOfNewThread(std::string* outTimestamp = nullptr) {
    int32_t number = 0;
    std::thread([&] {
        number = threadNumber();
        if (outTimestamp) *outTimestamp = logTimestamp();
    }).join();
    return number;
}

TEST(Log, ThreadNumbersAreStableAndNeverReused) {
    const int32_t own = threadNumber();
    EXPECT_GE(own, 1);
    std::set<int32_t> numbers{own};
    for (int i = 0; i < 20; ++i) EXPECT_TRUE(numbers.insert(numberOfNewThread()).second);
    EXPECT_EQ(threadNumber(), own);
}

TEST(Log, PrefixIsThreadNumberAndTimeOfDay) {
    const std::string prefix = logTimestamp();
    EXPECT_TRUE(std::regex_match(
        prefix, std::regex("\\d{3}-([01]\\d|2[0-3]):[0-5]\\d:[0-5]\\d\\.\\d{4}")))
        << prefix;
    EXPECT_EQ(std::stoi(prefix), threadNumber());
}

std::string widthsAroundWideThreads() {
    const auto digits = [](const std::string& prefix) { return std::to_string(prefix.find('-')); };
    const std::string before = digits(logTimestamp());
    while (numberOfNewThread() < 998) {
    }
    std::string unseen;
    numberOfNewThread(&unseen);  // 999, and 1000 has logged nothing yet
    std::string wide;
    numberOfNewThread(&wide);
    const std::string after = digits(logTimestamp());
    return before + digits(unseen) + digits(wide) + after;
}

// In a process of its own, since the switch is never turned back.
TEST(LogDeathTest, TheFirstLineOfAWideThreadWidensAllLaterPrefixes) {
    EXPECT_EXIT(
        {
            std::fprintf(stderr, "widths %s\n", widthsAroundWideThreads().c_str());
            std::exit(0);
        },
        testing::ExitedWithCode(0), "widths 3344");
}

TEST(Log, LinesOfManyThreadsStayWhole) {
    testing::internal::CaptureStdout();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 100; ++i) {
                logLine("%s [INFO ] TX #%zu %s\n", logTimestamp(), size_t{7}, "abort");
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    logFlush();
    const std::string text = testing::internal::GetCapturedStdout();
    const std::regex line("\\d+-[0-9:.]{13} \\[INFO \\] TX #7 abort\n");
    EXPECT_EQ(std::distance(std::sregex_iterator(text.begin(), text.end(), line),
                            std::sregex_iterator()),
              400);
    EXPECT_EQ(std::regex_replace(text, line, ""), "");
}

TEST(StopWatch, TextChoosesTheUnit) {
    EXPECT_EQ(StopWatch::durationText(999), "999 us");
    EXPECT_EQ(StopWatch::durationText(1002), "1.002 ms");
    EXPECT_EQ(StopWatch::durationText(61'020'999), "61.020 s");
}

TEST(Hash, IsFnv1a) {
    EXPECT_EQ(fnv1a(""), 0xCBF29CE484222325u);
    EXPECT_EQ(fnv1a("foobar"), 0x85944171F73967E8u);
    EXPECT_EQ(FnvHash<uint8_t>()(uint8_t{'a'}), FnvHash<std::string>()("a"));
}

}  // namespace
}  // namespace quillmere
