// Runs a fuzz target on the files of a directory, on all their beginnings, and on random changes of
// them: fuzz_NAME DIRECTORY

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "fuzz.h"
#include "support/seed.h"

namespace {

constexpr int kChangesOfEach = 3000;
constexpr size_t kLongestCut = 300;

void run(const std::string& input) {
    // Without slack behind the last byte, so that a sanitizer sees any read beyond it.
    const std::vector<uint8_t> exact(input.begin(), input.end());
    static const uint8_t kNothing = 0;
    LLVMFuzzerTestOneInput(exact.empty() ? &kNothing : exact.data(), exact.size());
}

// A few bytes changed, removed, inserted or repeated.
std::string changed(std::string input, std::mt19937& random) {
    const auto below = [&](size_t end) {
        return static_cast<size_t>(random() % std::max<size_t>(end, 1));
    };
    for (size_t changes = 1 + below(4); changes > 0; --changes) {
        const size_t at = below(input.size());
        const char any = static_cast<char>(below(2) ? 0xFF : random());
        switch (below(input.empty() ? 2 : 5)) {
            case 0: input.insert(at, below(9), any); break;
            case 1: input.insert(at, input.substr(below(input.size()), below(33))); break;
            case 2: input.erase(at, below(9)); break;
            case 3: input[at] = any; break;
            default: input[at] = static_cast<char>(input[at] ^ 1 << below(8));
        }
    }
    return input;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " DIRECTORY\n";
        return 2;
    }
    std::mt19937 random(quillmere::testSeed());
    run("");
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string input{std::istreambuf_iterator<char>(file), {}};
        run(input);
        for (size_t size = 0; size < std::min(input.size(), kLongestCut); ++size) {
            run(input.substr(0, size));
        }
        for (int i = 0; i < kChangesOfEach; ++i) run(changed(input, random));
        ++files;
    }
    if (files == 0) std::cerr << "No files in " << argv[1] << '\n';
    return files == 0;
}
