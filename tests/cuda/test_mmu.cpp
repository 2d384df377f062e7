// The caching allocator: a block is reused only for a request of the same shape, and the
// allocation count shows when the device was asked for memory.
#include <gtest/gtest.h>

#include "QvDeviceImage2D.h"
#include "QvDeviceMMU.h"
#include "QvTestUtil.h"

using namespace Qv;

namespace {

uint64_t Count() {
  return CQvDeviceMMU::GetAllocationCount();
}

TEST(DeviceMMU, SameSizeFramesReuseCachedBlocksAfterWarmUp) {
  const CQvImageFormat xFrame(3840, 2160, EPixelType::BayerGR, EDataType::UByte);
  const CQvImageFormat xRgba(3840, 2160, EPixelType::RGBA, EDataType::UByte);
  // Warm-up: two frames in flight at once, as in a pipeline of two elements.
  { CQvDeviceImage2D a(xFrame), b(xRgba), c(xFrame); }
  const uint64_t uAfterWarmUp = Count();
  for (int i = 0; i < 20; ++i) {
    CQvDeviceImage2D a(xFrame), b(xRgba), c(xFrame);
  }
  EXPECT_EQ(uAfterWarmUp, Count());
}

TEST(DeviceMMU, OtherShapesAllocateAndReusedBlocksKeepTheirPitch) {
  CQvDeviceMMU::Trim();
  EXPECT_EQ(0u, CQvDeviceMMU::GetCachedBytes());
  const uint64_t uBefore = Count();
  size_t uPitch = 0;
  void* p = nullptr;
  {
    CQvDeviceImage2D x(CQvImageFormat(1001, 3, EPixelType::Lum, EDataType::UByte));
    p = x.GetDevicePointer();
    uPitch = x.GetDevicePitch();
    EXPECT_GE(uPitch, 1001u);
  }
  EXPECT_EQ(uBefore + 1, Count());
  EXPECT_EQ(uPitch * 3, CQvDeviceMMU::GetCachedBytes());
  // Fewer rows, fewer bytes a row, the same bytes in another shape: none may take the block.
  for (const CQvImageFormat& f : {CQvImageFormat(1001, 2, EPixelType::Lum, EDataType::UByte),
                                  CQvImageFormat(1000, 3, EPixelType::Lum, EDataType::UByte),
                                  CQvImageFormat(3, 1001, EPixelType::Lum, EDataType::UByte)}) {
    CQvDeviceImage2D y(f);
    EXPECT_NE(p, y.GetDevicePointer()) << f.ToString().ToCString();
  }
  EXPECT_EQ(uBefore + 4, Count());
  CQvDeviceImage2D z(CQvImageFormat(1001, 3, EPixelType::Lum, EDataType::UByte));
  EXPECT_EQ(p, z.GetDevicePointer());
  EXPECT_EQ(uPitch, z.GetDevicePitch());
  EXPECT_EQ(uBefore + 4, Count());
}

TEST(DeviceMMU, LinearBlocksAreCachedLikeImagesAndOverflowIsRefused) {
  CQvDeviceMMU::QvCudaFree(CQvDeviceMMU::QvCudaMalloc(2, sizeof(float)));
  const uint64_t uBefore = Count();
  void* p = CQvDeviceMMU::QvCudaMalloc(2, sizeof(float));
  EXPECT_EQ(uBefore, Count());
  void* q = CQvDeviceMMU::QvCudaMalloc(3, sizeof(float));
  EXPECT_EQ(uBefore + 1, Count());
  CQvDeviceMMU::QvCudaFree(p);
  CQvDeviceMMU::QvCudaFree(q);
  CQvDeviceMMU::QvCudaFree(nullptr);
  EXPECT_EQ(QvTest::Thrown([] { CQvDeviceMMU::QvCudaMalloc(SIZE_MAX / 2, 4); }),
            "Device allocation size overflows");
}

}  // namespace
