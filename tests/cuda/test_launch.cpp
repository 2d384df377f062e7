// The launch helper gives every pixel of the domain one call, whatever the block shape.
#include <gtest/gtest.h>

#include "FetchProbe.h"
#include "TestImages.h"

using namespace Qv;

namespace {

TEST(Launch, EveryPixelIsVisitedOnceForAwkwardSizes) {
  const int aCases[][4] = {
      {113, 13, 32, 8}, {1, 1, 32, 8}, {64, 16, 32, 16}, {333, 1, 8, 32}, {1, 77, 32, 8}};
  for (const auto& c : aCases) {
    CQvDeviceImage2D xImage(CQvImageFormat(c[0], c[1], EPixelType::Lum, EDataType::Float));
    xImage.SetZero();
    CQvCudaComp xComp;
    QvTest::FillIndexImage(xComp, xImage, c[2], c[3]);
    const std::vector<double> x = QvTest::Download(xImage);
    int iWrong = 0;
    for (int y = 0; y < c[1]; ++y)
      for (int i = 0; i < c[0]; ++i) iWrong += x[y * c[0] + i] != i + y * 1000;
    EXPECT_EQ(0, iWrong) << c[0] << "x" << c[1] << " in blocks of " << c[2] << "x" << c[3];
  }
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
  EXPECT_EQ(QvTest::Thrown([&] { xComp.EvalKernelDim_2D_1D(CQvImageFormat(), 0, 8); }),
            "Invalid block size");
}

// The benchmarks read kernel times from the computation object: only while timing is on, and
// switching it on again starts from zero.
TEST(Launch, KernelTimingCountsOnlyWhileOn) {
  CQvDeviceImage2D xImage(CQvImageFormat(64, 48, EPixelType::Lum, EDataType::Float));
  CQvCudaComp xComp;
  QvTest::FillIndexImage(xComp, xImage, 32, 8);
  EXPECT_EQ(0.0, xComp.GetKernelMs());
  xComp.SetKernelTiming(true);
  QvTest::FillIndexImage(xComp, xImage, 32, 8);
  xComp.SetKernelTiming(true);
  EXPECT_EQ(0.0, xComp.GetKernelMs());
}

}  // namespace
