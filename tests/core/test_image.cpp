#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "QvImage.h"
#include "QvTestUtil.h"

using Qv::CQvImage;
using Qv::CQvImageFormat;
using Qv::CQvImageMoniker;
using Qv::EDataType;
using Qv::EPixelType;
using QvTest::MakeImage;
using QvTest::Samples;
using QvTest::Thrown;
using V = std::vector<double>;

namespace {

const EPixelType::ID Lum = EPixelType::Lum, LumA = EPixelType::LumA, RGB = EPixelType::RGB,
                     RGBA = EPixelType::RGBA, BGR = EPixelType::BGR, BGRA = EPixelType::BGRA;
const EDataType::ID UB = EDataType::UByte, US = EDataType::UShort, F = EDataType::Float;

}  // namespace

TEST(Image, CreateAllocatesAndKeepsMemoryOfTheSameSize) {
  CQvImage xImage(CQvImageFormat(5, 3, BGRA, US));
  EXPECT_EQ(xImage.GetImageBytes(), 120u);
  EXPECT_EQ(CQvImageFormat(static_cast<const Qv::IImage&>(xImage)), CQvImageFormat(5, 3, BGRA, US));
  const void* pBefore = xImage.GetDataPtr();
  xImage.Create(CQvImageFormat(10, 6, Lum, US));  // 120 bytes again
  EXPECT_EQ(xImage.GetDataPtr(), pBefore);
  EXPECT_EQ(xImage.GetFormat(), CQvImageFormat(10, 6, Lum, US));
  xImage.Create(CQvImageFormat(0, 10, RGB, UB));
  EXPECT_EQ(xImage.GetDataPtr(), nullptr);
  xImage.Release();
  EXPECT_EQ(xImage.GetFormat(), CQvImageFormat());
}

TEST(Image, RefusedFormatsLeaveTheImageAsItWas) {
  uint8_t auPixels[4] = {};
  CQvImage xImage(CQvImageFormat(2, 2, Lum, UB));
  const void* pBefore = xImage.GetDataPtr();
  CQvImageMoniker xView;
  const struct {
    CQvImageFormat xFormat;
    void* pData;
    const char* szMessage;
  } aCases[] = {
      {CQvImageFormat(-1, 2, Lum, UB), auPixels, "Invalid image size"},
      {CQvImageFormat(2, -7, Lum, UB), auPixels, "Invalid image size"},
      {CQvImageFormat(2, 2, Lum, static_cast<EDataType::ID>(5127)), auPixels,
       "Unknown data type 'Unknown'"},
      {CQvImageFormat(2, 2, static_cast<EPixelType::ID>(3), UB), auPixels, "Unknown pixel type"},
      {CQvImageFormat(2, 2, Lum, EDataType::Integral_10), auPixels,
       "Unable to determine bytes per pixel from integral data formats"},
      {CQvImageFormat(2, 2, Lum, UB), nullptr, "Invalid image data pointer"},
  };
  for (const auto& c : aCases) {
    const CQvImageFormat& f = c.xFormat;
    if (c.pData) {
      EXPECT_EQ(Thrown([&] { xImage.Create(f); }), c.szMessage);
    }
    EXPECT_EQ(
        Thrown([&] { xView.Create(f.iWidth, f.iHeight, f.ePixelType, f.eDataType, c.pData); }),
        c.szMessage);
  }
  EXPECT_EQ(xImage.GetDataPtr(), pBefore);
  EXPECT_EQ(xImage.GetFormat(), CQvImageFormat(2, 2, Lum, UB));
  EXPECT_FALSE(xView.IsValid());
}

TEST(Image, CopiesAreDeepAndMovesTransferTheMemory) {
  CQvImage xOriginal = MakeImage(3, 1, RGB, UB, {1, 2, 3, 4, 5, 6, 7, 8, 9});
  CQvImage xCopy(xOriginal), xAssigned(CQvImageFormat(50, 50, Lum, F));
  xAssigned = xOriginal;
  CQvImage& xAlias = xAssigned;
  xAssigned = xAlias;
  for (CQvImage* p : {&xCopy, &xAssigned}) {
    EXPECT_NE(p->GetDataPtr(), xOriginal.GetDataPtr());
    EXPECT_EQ(p->GetFormat(), xOriginal.GetFormat());
    EXPECT_EQ(Samples(*p), (V{1, 2, 3, 4, 5, 6, 7, 8, 9}));
  }
  const void* pData = xOriginal.GetDataPtr();
  xCopy = std::move(xOriginal);
  EXPECT_EQ(xCopy.GetDataPtr(), pData);
  EXPECT_FALSE(xOriginal.IsValid());  // NOLINT: a moved-from image is empty by contract
}

TEST(Image, CreateFromAViewCopiesEvenFromItsOwnMemory) {
  uint16_t auPixels[6] = {1, 2, 3, 4, 5, 6};
  const CQvImageMoniker xView(3, 2, Lum, US, auPixels);
  EXPECT_EQ(xView.GetDataPtr(), static_cast<void*>(auPixels));
  CQvImage xImage;
  xImage.Create(xView);
  auPixels[0] = 77;  // the image holds its own copy
  EXPECT_EQ(Samples(xImage), (V{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(Samples(xView), (V{77, 2, 3, 4, 5, 6}));
  // Views over the image's own memory: smaller, and of the same size shifted by one byte.
  xImage = MakeImage(4, 1, Lum, UB, {1, 2, 3, 4});
  xImage.Create(CQvImageMoniker(2, 1, Lum, UB, static_cast<uint8_t*>(xImage.GetDataPtr()) + 2));
  EXPECT_EQ(Samples(xImage), (V{3, 4}));
  xImage = MakeImage(2, 2, Lum, UB, {5, 6, 7, 8});
  xImage.Create(CQvImageMoniker(3, 1, Lum, UB, static_cast<uint8_t*>(xImage.GetDataPtr()) + 1));
  EXPECT_EQ(Samples(xImage), (V{6, 7, 8}));
}

TEST(Convert, ChannelsAndDataTypesFollowTheScalingRules) {
  const double fNan = NAN;
  const struct {
    EPixelType::ID eFrom;
    EDataType::ID eFromData;
    V xFrom;
    EPixelType::ID eTo;
    EDataType::ID eToData;
    bool bScale;
    V xExpected;
  } aCases[] = {
      // Scaled: UShort to UByte drops the low byte, UByte to UShort times 257, floats by M
      // and truncated, NaN to 0.
      {Lum, US, {0, 255, 256, 65535, 511, 65280}, Lum, UB, true, {0, 0, 1, 255, 1, 255}},
      {Lum, UB, {0, 1, 128, 255}, Lum, US, true, {0, 257, 32896, 65535}},
      {Lum, F, {-0.5, 0, 0.5, 1, 2, fNan, 0.25}, Lum, UB, true, {0, 0, 127, 255, 255, 0, 63}},
      {Lum, F, {-0.5, 0.5, 2, fNan, 0.25}, Lum, US, true, {0, 32767, 65535, 0, 16383}},
      {Lum, UB, {0, 51, 255}, Lum, F, true, {0, 0.2, 1}},
      {Lum, US, {0, 13107, 65535}, Lum, F, true, {0, 0.2, 1}},
      // Unscaled: only clamped to the target's range.
      {Lum, US, {200, 255, 300}, Lum, UB, false, {200, 255, 255}},
      {Lum, UB, {7, 200}, Lum, US, false, {7, 200}},
      {Lum, UB, {7, 200}, Lum, F, false, {7, 200}},
      {Lum, F, {-3, 12.9, 300.7, fNan, 70000}, Lum, UB, false, {0, 12, 255, 0, 255}},
      {Lum, F, {-3, 12.9, 300.7, fNan, 70000}, Lum, US, false, {0, 12, 300, 0, 65535}},
      // Channel orders; a new alpha is opaque.
      {RGB, UB, {10, 20, 30, 40, 50, 60}, RGBA, UB, true, {10, 20, 30, 255, 40, 50, 60, 255}},
      {RGB, UB, {10, 20, 30}, BGRA, US, true, {7710, 5140, 2570, 65535}},
      {RGB, UB, {10, 20, 30}, RGBA, F, true, {10 / 255.0, 20 / 255.0, 30 / 255.0, 1}},
      {BGR, UB, {1, 2, 3}, RGB, UB, true, {3, 2, 1}},
      {BGR, UB, {1, 2, 3}, RGBA, UB, true, {3, 2, 1, 255}},
      {RGBA, UB, {1, 2, 3, 4}, BGRA, UB, true, {3, 2, 1, 4}},
      {RGBA, UB, {1, 2, 3, 4}, BGR, UB, true, {3, 2, 1}},
      {RGBA, UB, {1, 2, 3, 4}, RGB, UB, true, {1, 2, 3}},
      // Gray spreads to every colour; mosaics read as gray.
      {Lum, UB, {0, 200}, RGBA, UB, true, {0, 0, 0, 255, 200, 200, 200, 255}},
      {Lum, UB, {0, 200}, LumA, UB, true, {0, 255, 200, 255}},
      {LumA, UB, {10, 20}, RGBA, US, true, {2570, 2570, 2570, 5140}},
      {LumA, UB, {10, 20}, BGR, UB, true, {10, 10, 10}},
      {LumA, UB, {10, 20}, Lum, UB, true, {10}},
      {EPixelType::BayerGB, US, {512, 1024}, RGB, UB, true, {2, 2, 2, 4, 4, 4}},
      {EPixelType::BayerGB, US, {512, 1024}, Lum, US, true, {512, 1024}},
      // Luma (R*299 + G*587 + B*114 + 500) / 1000 by hand: red 255 gives 76745 / 1000 = 76,
      // green 150, blue 29, (10, 20, 30) 18650 / 1000 = 18, white 255. UShort sources become
      // UByte first for a UByte target: (255*299 + 1*587 + 500) / 1000 = 77.
      {RGBA, UB, {255, 0, 0, 1, 0, 255, 0, 2}, Lum, UB, true, {76, 150}},
      {RGBA, UB, {0, 0, 255, 3, 255, 255, 255, 5}, Lum, UB, true, {29, 255}},
      {RGBA, UB, {255, 0, 0, 1, 10, 20, 30, 4}, LumA, UB, true, {76, 1, 18, 4}},
      {BGR, UB, {30, 20, 10}, Lum, UB, true, {18}},
      {RGB, US, {65535, 256, 0}, Lum, UB, true, {77}},
      {RGB, US, {1000, 2000, 3000}, Lum, US, true, {1815}},
      {RGB, F, {1, 0, 0}, Lum, F, true, {0.299}},
      // The same format is a copy, of any type.
      {Lum, EDataType::Short, {-5, 1234}, Lum, EDataType::Short, true, {-5, 1234}},
      {EPixelType::BayerRG, UB, {9, 8}, EPixelType::BayerRG, UB, true, {9, 8}},
  };
  for (const auto& c : aCases) {
    const int n = CQvImageFormat(1, 1, c.eFrom, c.eFromData).GetComponentCount();
    const CQvImage xSource =
        MakeImage(static_cast<int>(c.xFrom.size()) / n, 1, c.eFrom, c.eFromData, c.xFrom);
    CQvImage xTarget;
    CQvImage::ConvertType(xTarget, xSource, c.eTo, c.eToData, c.bScale);
    const std::string sRow = std::string(xSource.GetFormat().ToString().ToCString()) + " to " +
                             CQvImageFormat::PixelType2String(c.eTo) + ", " +
                             CQvImageFormat::DataType2String(c.eToData);
    ASSERT_EQ(xTarget.GetFormat(), CQvImageFormat(xSource.GetFormat().iWidth, 1, c.eTo, c.eToData))
        << sRow;
    EXPECT_NE(xTarget.GetDataPtr(), xSource.GetDataPtr());
    const V xOut = Samples(xTarget);
    ASSERT_EQ(xOut.size(), c.xExpected.size()) << sRow;
    for (size_t i = 0; i < xOut.size(); ++i)
      EXPECT_NEAR(xOut[i], c.xExpected[i], c.eToData == F ? 1e-7 : 0.0) << sRow << " [" << i << "]";
  }
}

TEST(Convert, IntoItselfAndFromAViewOfTheTarget) {
  CQvImage xImage = MakeImage(2, 1, RGB, UB, {10, 20, 30, 40, 50, 60});
  xImage.ConvertType(xImage, BGRA, US);
  EXPECT_EQ(xImage.GetFormat(), CQvImageFormat(2, 1, BGRA, US));
  EXPECT_EQ(Samples(xImage), (V{7710, 5140, 2570, 65535, 15420, 12850, 10280, 65535}));
  CQvImage xTarget = MakeImage(2, 1, Lum, UB, {1, 255});
  CQvImage::ConvertType(xTarget, CQvImageMoniker(2, 1, Lum, UB, xTarget.GetDataPtr()), RGB, UB,
                        true);
  EXPECT_EQ(Samples(xTarget), (V{1, 1, 1, 255, 255, 255}));
  CQvImage(CQvImageFormat(0, 0, Lum, UB)).ConvertType(xTarget, RGBA, F);
  EXPECT_EQ(xTarget.GetFormat(), CQvImageFormat(0, 0, RGBA, F));
  EXPECT_FALSE(xTarget.IsValid());
}

TEST(Convert, UnsupportedCombinationsAreRefusedAndTheTargetKept) {
  const CQvImage xShort = MakeImage(2, 1, Lum, EDataType::Short, {1, 2});
  const CQvImage xLum = MakeImage(2, 1, Lum, UB, {1, 2});
  CQvImage xTarget;
  const struct {
    const CQvImage& xSource;
    EPixelType::ID ePixel;
    EDataType::ID eData;
    const char* szTarget;
  } aCases[] = {
      {xShort, Lum, UB, "2x1, Lum, Short to 2x1, Lum, UByte"},
      {xLum, EPixelType::BayerRG, UB, "2x1, Lum, UByte to 2x1, BayerRG, UByte"},
      {xLum, RGB, EDataType::Double, "2x1, Lum, UByte to 2x1, RGB, Double"},
      {xLum, EPixelType::Unknown, UB, "2x1, Lum, UByte to 2x1, Unknown, UByte"},
      {xLum, EPixelType::None, UB, "2x1, Lum, UByte to 2x1, None, UByte"},
  };
  for (const auto& c : aCases)
    EXPECT_EQ(Thrown([&] { c.xSource.ConvertType(xTarget, c.ePixel, c.eData); }),
              std::string("Unsupported image type conversion: ") + c.szTarget);
  EXPECT_FALSE(xTarget.IsValid());
}
