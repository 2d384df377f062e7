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

Qv::CQvDeviceImage2D DeviceImage(const Qv::CQvImageFormat& xFormat,
                                 const std::vector<double>& xRaw) {
  Qv::CQvImage xHost(xFormat);
  const size_t uCount = xFormat.GetImageBytes() / xFormat.GetBytesPerChannel();
  for (size_t i = 0; i < uCount; ++i) {
    const double v = xRaw.size() == 1 ? xRaw[0] : xRaw.at(i);
    void* p = xHost.GetDataPtr();
    if (xFormat.eDataType == Qv::EDataType::UByte)
      static_cast<uint8_t*>(p)[i] = static_cast<uint8_t>(v);
    else if (xFormat.eDataType == Qv::EDataType::UShort)
      static_cast<uint16_t*>(p)[i] = static_cast<uint16_t>(v);
    else
      static_cast<float*>(p)[i] = static_cast<float>(v);
  }
  return Qv::CQvDeviceImage2D(xHost);
}

std::vector<double> Elements(const Qv::CQvDeviceImage2D& xImage) {
  Qv::CQvImage xHost;
  xImage.CopyTo(xHost);
  const Qv::CQvImageFormat& xFormat = xImage.GetFormat();
  std::vector<double> xOut(xFormat.GetImageBytes() / xFormat.GetBytesPerChannel());
  const void* p = xHost.GetDataPtr();
  for (size_t i = 0; i < xOut.size(); ++i) {
    if (xFormat.eDataType == Qv::EDataType::UByte)
      xOut[i] = static_cast<const uint8_t*>(p)[i];
    else if (xFormat.eDataType == Qv::EDataType::UShort)
      xOut[i] = static_cast<const uint16_t*>(p)[i];
    else
      xOut[i] = static_cast<const float*>(p)[i];
  }
  return xOut;
}

const char* BackendName() {
  return Qv::Device::GetBackendName();
}

}  // namespace QvTest
