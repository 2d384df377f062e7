// RGBA to planar YUV: every expected sample is worked out here from the colour formulas and
// the plane layout, independently of the kernel.
#include "QvCudaCompYUV.h"
#include "QvDevice.h"
#include "TestImages.h"

using namespace Qv;

namespace {

// A random RGBA image, and Y (iPlane 0), U or V of its pixel (x, y), the edge repeated: each
// formula in single precision with the G term first, then R, then B, each a fused multiply-add.
struct SRgba {
  int w, h;
  float fM;
  CQvImage xImage;
  std::vector<double> s = QvTest::Samples(xImage);

  double Yuv(int iPlane, int x, int y) const {
    const size_t i = (std::clamp(y, 0, h - 1) * w + std::clamp(x, 0, w - 1)) * 4;
    const float r = s[i] / fM, g = s[i + 1] / fM, b = s[i + 2] / fM;
    const float v = iPlane == 0   ? std::fmaf(0.114f, b, std::fmaf(0.299f, r, 0.587f * g))
                    : iPlane == 1 ? std::fmaf(0.436f, b, std::fmaf(-0.147f, r, -0.289f * g)) + 0.5f
                                  : std::fmaf(-0.1f, b, std::fmaf(0.615f, r, -0.515f * g)) + 0.5f;
    return QvTest::StoreRule(v, fM);
  }
};

SRgba RandomRgba(int w, int h, bool b16, uint32_t uSeed) {
  const EDataType::ID eData = b16 ? EDataType::UShort : EDataType::UByte;
  return {w, h, b16 ? 65535.0f : 255.0f,
          QvTest::RandomImage(CQvImageFormat(w, h, EPixelType::RGBA, eData), uSeed)};
}

TEST(YuvStacked, LumaRowsThenFlatChromaRunsForAwkwardSizes) {
  // A chroma plane is a flat run of samples n = 2 (row offset * W + x) at column n mod W of
  // row 2 (n div W): odd widths wrap the run across source rows. Heights not divisible by 4
  // truncate 1.25 H and 1.5 H; chroma rows past the image repeat its last row.
  const int aSizes[][2] = {{4, 4}, {6, 4},    {5, 4}, {7, 6}, {4, 6},
                           {3, 5}, {113, 13}, {1, 1}, {2, 7}};
  uint32_t uSeed = 20;
  for (const auto& a : aSizes) {
    for (bool b16 : {false, true}) {
      const SRgba xSrc = RandomRgba(a[0], a[1], b16, ++uSeed);
      const int W = xSrc.w, H = xSrc.h, iTotal = H * 3 / 2, iVStart = H * 5 / 4;
      CQvDeviceImage2D xSource(xSrc.xImage), xTarget;
      CQvCudaCompYUV().Convert(xTarget, xSource);
      QV_EXPECT_FORMAT_OR_NEXT(
          CQvImageFormat(W, iTotal, EPixelType::Lum, xSrc.xImage.GetFormat().eDataType),
          xTarget.GetFormat());
      std::vector<double> xExpected;
      for (int y = 0; y < iTotal; ++y) {
        for (int x = 0; x < W; ++x) {
          const int iPlane = y < H ? 0 : (y < iVStart ? 1 : 2);
          const int n = 2 * ((y - (iPlane == 1 ? H : iVStart)) * W + x);
          xExpected.push_back(iPlane == 0 ? xSrc.Yuv(0, x, y)
                                          : xSrc.Yuv(iPlane, n % W, 2 * (n / W)));
        }
      }
      EXPECT_EQ(QvTest::Download(xTarget), xExpected) << W << "x" << H << (b16 ? " 16" : " 8");
    }
  }
}

TEST(YuvPlanes, ThreePlanesGetLumaAndTopLeftChromaAndNothingElse) {
  for (bool b16 : {false, true}) {
    const SRgba xSrc = RandomRgba(7, 5, b16, 40);
    const EDataType::ID eData = b16 ? EDataType::UShort : EDataType::UByte;
    // Sentinel bytes in every plane, padding included; the U plane is larger than needed.
    CQvDeviceImage2D xPlanes[3] = {CQvDeviceImage2D(CQvImageFormat(7, 5, EPixelType::Lum, eData)),
                                   CQvDeviceImage2D(CQvImageFormat(5, 4, EPixelType::Lum, eData)),
                                   CQvDeviceImage2D(CQvImageFormat(3, 2, EPixelType::Lum, eData))};
    for (CQvDeviceImage2D& x : xPlanes)
      Device::Memset2D(x.GetDevicePointer(), x.GetDevicePitch(), 0xA5, x.GetDevicePitch(),
                       x.GetFormat().iHeight, nullptr);
    CQvCudaCompYUV().Convert(xPlanes[0], xPlanes[1], xPlanes[2], CQvDeviceImage2D(xSrc.xImage));
    for (int iPlane = 0; iPlane < 3; ++iPlane) {
      const CQvDeviceImage2D& x = xPlanes[iPlane];
      const size_t uPitch = x.GetDevicePitch(), uHeight = x.GetFormat().iHeight;
      std::vector<uint8_t> xBytes(uPitch * uHeight);
      Device::Copy2D(xBytes.data(), uPitch, x.GetDevicePointer(), uPitch, uPitch, uHeight,
                     Device::ECopyKind::DeviceToHost, nullptr, false);
      for (size_t i = 0; i < xBytes.size(); i += b16 ? 2 : 1) {
        const int px = static_cast<int>(i % uPitch) / (b16 ? 2 : 1),
                  py = static_cast<int>(i / uPitch);
        // Luma everywhere in plane Y; chroma of the even pixels in 3 x 2 of U and V.
        const bool bWritten = iPlane == 0 ? px < 7 : (px < 3 && py < 2);
        const double dExpected = !bWritten     ? (b16 ? 0xA5A5 : 0xA5)
                                 : iPlane == 0 ? xSrc.Yuv(0, px, py)
                                               : xSrc.Yuv(iPlane, 2 * px, 2 * py);
        EXPECT_EQ(dExpected, QvTest::GetSample(&xBytes[i], eData, 0))
            << (b16 ? "16" : "8") << "-bit plane " << iPlane << " at " << px << "," << py;
        if (dExpected != QvTest::GetSample(&xBytes[i], eData, 0)) break;  // one a plane
      }
    }
  }
}

}  // namespace
