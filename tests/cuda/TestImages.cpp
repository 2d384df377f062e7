#include "TestImages.h"

#include <cstring>

#include "QvDevice.h"

namespace QvTest {

std::vector<uint8_t> RandomBytes(size_t uCount, uint32_t uSeed) {
  std::vector<uint8_t> xBytes(uCount);
  uint32_t u = uSeed * 2654435761u + 12345u;
  for (auto& b : xBytes) {
    u = u * 1664525u + 1013904223u;
    b = static_cast<uint8_t>(u >> 24);
  }
  return xBytes;
}

Qv::CQvImage RandomImage(const Qv::CQvImageFormat& xFormat, uint32_t uSeed) {
  Qv::CQvImage xImage(xFormat);
  const auto xBytes = RandomBytes(xFormat.GetImageBytes(), uSeed);
  std::memcpy(xImage.GetDataPtr(), xBytes.data(), xBytes.size());
  return xImage;
}

bool BytesEqual(const Qv::IImage& a, const Qv::IImage& b) {
  const Qv::CQvImageFormat fa(a), fb(b);
  if (fa != fb) return false;
  return std::memcmp(a.GetDataPtr(), b.GetDataPtr(), fa.GetImageBytes()) == 0;
}

const char* BackendName() {
  return Qv::Device::GetBackendName();
}

}  // namespace QvTest
