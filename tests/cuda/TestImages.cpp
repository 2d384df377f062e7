#include "TestImages.h"

#include <cstring>

#include "QvDevice.h"

namespace QvTest {

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
