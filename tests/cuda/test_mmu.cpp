// The caching allocator: a steady stream of same-size frames makes no new device allocation.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "QvDeviceImage2D.h"
#include "QvDeviceMMU.h"

using namespace Qv;

namespace {

TEST(DeviceMMU, SameSizeFramesReuseCachedBlocksAfterWarmUp) {
  const CQvImageFormat xFrame(3840, 2160, EPixelType::BayerGR, EDataType::UByte);
  const CQvImageFormat xRgba(3840, 2160, EPixelType::RGBA, EDataType::UByte);
  // Warm-up: two frames in flight at once, as in a pipeline of two elements.
  for (int i = 0; i < 2; ++i) {
    CQvDeviceImage2D a(xFrame), b(xRgba), c(xFrame);
  }
  const uint64_t uAfterWarmUp = CQvDeviceMMU::GetAllocationCount();
  for (int i = 0; i < 50; ++i) {
    auto pxIn = std::make_unique<CQvDeviceImage2D>(xFrame);
    auto pxOut = std::make_unique<CQvDeviceImage2D>(xRgba);
    auto pxNext = std::make_unique<CQvDeviceImage2D>(xFrame);
  }
  EXPECT_EQ(uAfterWarmUp, CQvDeviceMMU::GetAllocationCount());
}

TEST(DeviceMMU, ReusedBlockHasThePitchOfAFreshOne) {
  const CQvImageFormat xFormat(1001, 3, EPixelType::Lum, EDataType::UByte);
  size_t uFirstPitch = 0;
  {
    CQvDeviceImage2D x(xFormat);
    uFirstPitch = x.GetDevicePitch();
  }
  CQvDeviceImage2D y(xFormat);
  EXPECT_EQ(uFirstPitch, y.GetDevicePitch());
  EXPECT_GE(y.GetDevicePitch(), 1001u);
}

TEST(DeviceMMU, NewSizeAllocatesAndTrimEmptiesTheCache) {
  const uint64_t uBefore = CQvDeviceMMU::GetAllocationCount();
  { CQvDeviceImage2D x(CQvImageFormat(777, 333, EPixelType::Lum, EDataType::Float)); }
  EXPECT_EQ(uBefore + 1, CQvDeviceMMU::GetAllocationCount());
  EXPECT_GT(CQvDeviceMMU::GetCachedBytes(), 0u);
  CQvDeviceMMU::Trim();
  EXPECT_EQ(0u, CQvDeviceMMU::GetCachedBytes());
}

TEST(DeviceMMU, LinearBlocksAreCachedLikeImages) {
  void* p = CQvDeviceMMU::QvCudaMalloc(2, sizeof(float));
  ASSERT_NE(nullptr, p);
  CQvDeviceMMU::QvCudaFree(p);
  const uint64_t uBefore = CQvDeviceMMU::GetAllocationCount();
  void* q = CQvDeviceMMU::QvCudaMalloc(2, sizeof(float));
  EXPECT_EQ(uBefore, CQvDeviceMMU::GetAllocationCount());
  CQvDeviceMMU::QvCudaFree(q);
  CQvDeviceMMU::QvCudaFree(nullptr);
}

TEST(DeviceMMU, OverflowingRequestIsRefused) {
  EXPECT_ANY_THROW(CQvDeviceMMU::QvCudaMalloc(SIZE_MAX / 2, 4));
}

}  // namespace
