// The launch helper gives every pixel of the domain one call, whatever the block shape.
#include <gtest/gtest.h>

#include "FetchProbe.h"
#include "QvCudaComp.h"
#include "QvDeviceImage2D.h"

using namespace Qv;

namespace {

void ExpectIndexImage(int iWidth, int iHeight, int iBlockX, int iBlockY) {
  CQvDeviceImage2D xImage(CQvImageFormat(iWidth, iHeight, EPixelType::Lum, EDataType::Float));
  xImage.SetZero();
  QvTest::FillIndexImage(xImage, iBlockX, iBlockY);
  CQvImage xBack;
  xImage.CopyTo(xBack);
  const float* p = static_cast<const float*>(xBack.GetDataPtr());
  for (int y = 0; y < iHeight; ++y)
    for (int x = 0; x < iWidth; ++x)
      ASSERT_EQ(static_cast<float>(x + y * 1000), p[y * iWidth + x]) << x << "," << y;
}

TEST(Launch, EveryPixelIsVisitedOnceForAwkwardSizes) {
  ExpectIndexImage(113, 13, 32, 8);
  ExpectIndexImage(1, 1, 32, 8);
  ExpectIndexImage(64, 16, 32, 16);
  ExpectIndexImage(333, 1, 8, 32);
}

TEST(Launch, GridCoversTheFormat) {
  CQvCudaComp xComp;
  xComp.EvalKernelDim_2D_1D(CQvImageFormat(113, 13, EPixelType::Lum, EDataType::UByte), 32, 8);
  EXPECT_EQ(4u, xComp.GetGrid().x);
  EXPECT_EQ(2u, xComp.GetGrid().y);
  EXPECT_EQ(32u, xComp.GetBlock().x);
  EXPECT_EQ(8u, xComp.GetBlock().y);
  // The direct form always adds one block: a multiple of the block gets a spare column.
  xComp.SetKernelDim_Direct(CQvImageFormat(64, 16, EPixelType::Lum, EDataType::UByte), 32, 16);
  EXPECT_EQ(3u, xComp.GetGrid().x);
  EXPECT_EQ(2u, xComp.GetGrid().y);
}

// The benchmarks read kernel times from the computation object: each launch adds its own time
// while timing is on, and switching it on again starts from zero.
TEST(Launch, KernelTimingSumsTheLaunches) {
  CQvDeviceImage2D xImage(CQvImageFormat(640, 480, EPixelType::Lum, EDataType::Float));
  CQvCudaComp xComp;
  QvTest::FillIndexImage(xComp, xImage, 32, 8);
  EXPECT_EQ(0.0, xComp.GetKernelMs());
  xComp.SetKernelTiming(true);
  QvTest::FillIndexImage(xComp, xImage, 32, 8);
  const double dOne = xComp.GetKernelMs();
  EXPECT_GT(dOne, 0.0);
  QvTest::FillIndexImage(xComp, xImage, 32, 8);
  EXPECT_GT(xComp.GetKernelMs(), dOne);
  xComp.SetKernelTiming(true);
  EXPECT_EQ(0.0, xComp.GetKernelMs());
  xComp.SetKernelTiming(false);
  QvTest::FillIndexImage(xComp, xImage, 32, 8);
  EXPECT_EQ(0.0, xComp.GetKernelMs());
}

}  // namespace
