#pragma once
// Deterministic test bytes (a small LCG), so that a failure reproduces.
#include <cstddef>
#include <cstdint>
#include <vector>

namespace QvTest {

inline std::vector<uint8_t> RandomBytes(size_t uCount, uint32_t uSeed) {
  std::vector<uint8_t> xBytes(uCount);
  uint32_t u = uSeed * 2654435761u + 12345u;
  for (auto& b : xBytes) {
    u = u * 1664525u + 1013904223u;
    b = static_cast<uint8_t>(u >> 24);
  }
  return xBytes;
}

}  // namespace QvTest
