#pragma once

// Sums and averages of 64-bit floats.

#include <cmath>
#include <cstdint>
#include <limits>

namespace quillmere {

// Adds with Neumaier's compensation: the bits that a step loses are kept apart.
class CompensatedSum {
public:
    // False once the sum is NaN.
    bool add(double value) {
        const double total = sum_ + value;
        compensation_ += std::abs(sum_) >= std::abs(value) ? (sum_ - total) + value
                                                           : (value - total) + sum_;
        sum_ = total;
        return !std::isnan(total);
    }

    // The compensation turns NaN in the step after the sum became infinite.
    double value() const { return std::isnan(compensation_) ? sum_ : sum_ + compensation_; }
    bool infinite() const { return std::isinf(sum_); }

private:
    double sum_ = 0;
    double compensation_ = 0;
};

// From the sum for as long as that is finite, then a running mean: an overflow of the sum does not
// spoil the average.
class FloatMean {
public:
    // False once the mean is NaN.
    bool add(double value) {
        ++count_;
        if (running_) return addToMean(value);
        const CompensatedSum before = sum_;
        const bool valid = sum_.add(value);
        if (!sum_.infinite()) return valid;
        running_ = true;
        mean_ = count_ == 1 ? 0 : before.value() / static_cast<double>(count_ - 1);
        return addToMean(value);
    }

    int64_t count() const { return count_; }
    // NaN without values.
    double value() const {
        return running_ ? mean_ : sum_.value() / static_cast<double>(count_);
    }

private:
    // mean += (value - mean) / count, without the overflow of the difference.
    bool addToMean(double value) {
        const auto count = static_cast<double>(count_);
        mean_ += std::isinf(mean_) ? value : value / count - mean_ / count;
        return !std::isnan(mean_);
    }

    CompensatedSum sum_;
    int64_t count_ = 0;
    double mean_ = 0;
    bool running_ = false;
};

}  // namespace quillmere
