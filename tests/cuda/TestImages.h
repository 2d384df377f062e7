#pragma once
// Test images: seeded random ones, and device images from and to plain numbers.
#include "QvDeviceImage2D.h"
#include "QvTestRandom.h"
#include "QvTestUtil.h"

namespace QvTest {

inline Qv::CQvImage RandomImage(const Qv::CQvImageFormat& xFormat, uint32_t uSeed) {
  Qv::CQvImage xImage(xFormat);
  const std::vector<uint8_t> xBytes = RandomBytes(xFormat.GetImageBytes(), uSeed);
  std::memcpy(xImage.GetDataPtr(), xBytes.data(), xBytes.size());
  return xImage;
}

// The storing rule of every kernel: scale by M, clamp to [0, M], truncate; NaN stores M.
inline double StoreRule(float v, float fM) {
  return std::floor(std::fmax(std::fmin(fM, v * fM), 0.0f));
}

inline Qv::CQvDeviceImage2D Upload(int w, int h, Qv::EPixelType::ID ePixel, Qv::EDataType::ID eData,
                                   const std::vector<double>& xSamples) {
  return Qv::CQvDeviceImage2D(MakeImage(w, h, ePixel, eData, xSamples));
}

inline std::vector<double> Download(const Qv::CQvDeviceImage2D& xImage) {
  Qv::CQvImage xHost;
  xImage.CopyTo(xHost);
  return Samples(xHost);
}

// An image over plain bytes of any format, packed custom data included.
struct SRawImage : public Qv::IImage {
  Qv::CQvImageFormat f;
  std::vector<uint8_t> xBytes;
  SRawImage(const Qv::CQvImageFormat& xFormat, std::vector<uint8_t> x) : f(xFormat), xBytes(x) {}
  int GetBytesPerPixel() const override { return 0; }
  void GetSize(int& w, int& h) const override { w = f.iWidth, h = f.iHeight; }
  void GetType(Qv::EPixelType::ID& p, Qv::EDataType::ID& d) const override {
    p = f.ePixelType, d = f.eDataType;
  }
  void* GetDataPtr() override { return xBytes.data(); }
  const void* GetDataPtr() const override { return xBytes.data(); }
};

}  // namespace QvTest
