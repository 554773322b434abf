// Timing helpers shared by the benchmark programs.
#ifndef BENCH_TIMING_H
#define BENCH_TIMING_H

#include <algorithm>
#include <chrono>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

inline double Ms(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double, std::milli>(b - a).count();
}

inline double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// Median wall time of `runs` calls of fn, in milliseconds.
template <typename Fn>
double MedianMs(int runs, Fn fn) {
  std::vector<double> v;
  for (int i = 0; i < runs; ++i) {
    auto t0 = Clock::now();
    fn();
    v.push_back(Ms(t0, Clock::now()));
  }
  return Median(v);
}

}  // namespace bench

#endif
