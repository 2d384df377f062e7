#pragma once
// What both benchmarks report of a series of timed runs.
#include <algorithm>
#include <vector>

namespace QvBench {

inline double Median(std::vector<double> x) {
  std::sort(x.begin(), x.end());
  return x.empty() ? 0.0 : x[x.size() / 2];
}

}  // namespace QvBench
