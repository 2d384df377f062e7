// Format mapping between GStreamer, the image ids and OpenCV, and the frame copy functions:
// tables written out here from the format lists, frames checked byte by byte.
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <opencv2/core/cuda.hpp>
#include <string>
#include <vector>

#include "GstTestUtil.h"
#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "gstUtil.h"

using namespace Qv;

namespace {

// A frame that only names its format, as the table functions read it.
GstVideoFrame FrameOf(GstVideoFormat eFormat) {
  GstVideoFrame xFrame;
  std::memset(&xFrame, 0, sizeof(xFrame));
  gst_video_info_init(&xFrame.info);
  xFrame.info.finfo = gst_video_format_get_info(eFormat);
  return xFrame;
}

std::vector<GstVideoFormat> AllFormats() {
  guint uCount = 0;
  const GstVideoFormat* pFormats = gst_video_formats_raw(&uCount);
  std::vector<GstVideoFormat> x(pFormats, pFormats + uCount);
  x.push_back(GST_VIDEO_FORMAT_ENCODED);
  return x;
}

template <class F>
std::string ThrownText(F fn) {
  try {
    fn();
  } catch (const CQvException& e) {
    return e.GetMessageText();
  }
  return "(nothing thrown)";
}

TEST(FormatMapping, GstFormatsToPixelTypes) {
  const std::map<GstVideoFormat, EPixelType::ID> xTable = {
      {GST_VIDEO_FORMAT_ENCODED, EPixelType::Lum},
      {GST_VIDEO_FORMAT_I420, EPixelType::Lum},
      {GST_VIDEO_FORMAT_I420_10LE, EPixelType::Lum},
      {GST_VIDEO_FORMAT_RGBx, EPixelType::RGBA},
      {GST_VIDEO_FORMAT_RGBA, EPixelType::RGBA},
      {GST_VIDEO_FORMAT_BGRx, EPixelType::BGRA},
      {GST_VIDEO_FORMAT_BGRA, EPixelType::BGRA},
      {GST_VIDEO_FORMAT_RGB, EPixelType::RGB},
      {GST_VIDEO_FORMAT_BGR, EPixelType::BGR},
      {GST_VIDEO_FORMAT_GRAY8, EPixelType::BayerGR},
      {GST_VIDEO_FORMAT_GRAY16_BE, EPixelType::BayerGR},
      {GST_VIDEO_FORMAT_GRAY16_LE, EPixelType::BayerGR}};
  for (GstVideoFormat eFormat : AllFormats()) {
    const GstVideoFrame xFrame = FrameOf(eFormat);
    const auto it = xTable.find(eFormat);
    if (it != xTable.end())
      EXPECT_EQ(it->second, MapGstToQvPixType(&xFrame)) << gst_video_format_to_string(eFormat);
    else
      EXPECT_EQ("Pixel type cannot be determined", ThrownText([&] { MapGstToQvPixType(&xFrame); }))
          << gst_video_format_to_string(eFormat);
  }
}

TEST(FormatMapping, GstFormatsToDataTypes) {
  const std::map<GstVideoFormat, EDataType::ID> xTable = {
      {GST_VIDEO_FORMAT_ENCODED, EDataType::UShort},
      {GST_VIDEO_FORMAT_GRAY16_BE, EDataType::UShort},
      {GST_VIDEO_FORMAT_GRAY16_LE, EDataType::UShort},
      {GST_VIDEO_FORMAT_RGB16, EDataType::UShort},
      {GST_VIDEO_FORMAT_BGR16, EDataType::UShort},
      {GST_VIDEO_FORMAT_I420, EDataType::UByte},
      {GST_VIDEO_FORMAT_RGBx, EDataType::UByte},
      {GST_VIDEO_FORMAT_BGRx, EDataType::UByte},
      {GST_VIDEO_FORMAT_RGBA, EDataType::UByte},
      {GST_VIDEO_FORMAT_BGRA, EDataType::UByte},
      {GST_VIDEO_FORMAT_RGB, EDataType::UByte},
      {GST_VIDEO_FORMAT_BGR, EDataType::UByte},
      {GST_VIDEO_FORMAT_GRAY8, EDataType::UByte}};
  for (GstVideoFormat eFormat : AllFormats()) {
    const GstVideoFrame xFrame = FrameOf(eFormat);
    const auto it = xTable.find(eFormat);
    if (it != xTable.end())
      EXPECT_EQ(it->second, MapGstToQvDataType(&xFrame)) << gst_video_format_to_string(eFormat);
    else
      EXPECT_EQ("Data type cannot be determined", ThrownText([&] { MapGstToQvDataType(&xFrame); }))
          << gst_video_format_to_string(eFormat);
  }
}

TEST(FormatMapping, TheTwoGstTablesCoverDifferentFormats) {
  // I420_10LE has a pixel type and no data type; RGB16 and BGR16 the other way round.
  const GstVideoFrame xI420_10 = FrameOf(GST_VIDEO_FORMAT_I420_10LE);
  EXPECT_EQ(EPixelType::Lum, MapGstToQvPixType(&xI420_10));
  EXPECT_EQ("Data type cannot be determined", ThrownText([&] { MapGstToQvDataType(&xI420_10); }));
  for (GstVideoFormat eFormat : {GST_VIDEO_FORMAT_RGB16, GST_VIDEO_FORMAT_BGR16}) {
    const GstVideoFrame x = FrameOf(eFormat);
    EXPECT_EQ(EDataType::UShort, MapGstToQvDataType(&x));
    EXPECT_EQ("Pixel type cannot be determined", ThrownText([&] { MapGstToQvPixType(&x); }));
  }
  // A gray frame is a mosaic, a YUY2 frame nothing at all.
  const GstVideoFrame xGray16 = FrameOf(GST_VIDEO_FORMAT_GRAY16_LE);
  EXPECT_EQ(EPixelType::BayerGR, MapGstToQvPixType(&xGray16));
  EXPECT_EQ(EDataType::UShort, MapGstToQvDataType(&xGray16));
  const GstVideoFrame xYuy2 = FrameOf(GST_VIDEO_FORMAT_YUY2);
  EXPECT_EQ("Pixel type cannot be determined", ThrownText([&] { MapGstToQvPixType(&xYuy2); }));
  EXPECT_EQ("Data type cannot be determined", ThrownText([&] { MapGstToQvDataType(&xYuy2); }));
}

TEST(FormatMapping, PixelTypesToGstFormats) {
  EXPECT_EQ(GST_VIDEO_FORMAT_GRAY8, MapQvToGstFormat(EPixelType::Lum));
  EXPECT_EQ(GST_VIDEO_FORMAT_RGB, MapQvToGstFormat(EPixelType::RGB));
  EXPECT_EQ(GST_VIDEO_FORMAT_RGBA, MapQvToGstFormat(EPixelType::RGBA));
  EXPECT_EQ(GST_VIDEO_FORMAT_BGR, MapQvToGstFormat(EPixelType::BGR));
  EXPECT_EQ(GST_VIDEO_FORMAT_BGRA, MapQvToGstFormat(EPixelType::BGRA));
  for (EPixelType::ID e :
       {EPixelType::None, EPixelType::LumA, EPixelType::BayerRG, EPixelType::BayerGR,
        EPixelType::Unknown, static_cast<EPixelType::ID>(7)})
    EXPECT_EQ(GST_VIDEO_FORMAT_UNKNOWN, MapQvToGstFormat(e)) << e;
}

TEST(FormatMapping, ImageFormatsToOpenCvTypes) {
  const std::map<EPixelType::ID, int> xTable = {
      {EPixelType::Lum, CV_8UC1},     {EPixelType::BayerRG, CV_8UC1},
      {EPixelType::BayerBG, CV_8UC1}, {EPixelType::BayerGR, CV_8UC1},
      {EPixelType::BayerGB, CV_8UC1}, {EPixelType::LumA, CV_8UC2},
      {EPixelType::Unknown, CV_8UC2}, {EPixelType::RGB, CV_8UC3},
      {EPixelType::BGR, CV_8UC3},     {EPixelType::RGBA, CV_8UC4},
      {EPixelType::BGRA, CV_8UC4}};
  for (const auto& x : xTable)
    EXPECT_EQ(x.second, MapToCVFormat(CQvImageFormat(4, 4, x.first, EDataType::UByte))) << x.first;
  EXPECT_EQ(0, CV_8UC1);
  EXPECT_EQ(24, CV_8UC4);
  // The data type is tested first.
  EXPECT_EQ("Unsupported data type provided", ThrownText([] {
              MapToCVFormat(CQvImageFormat(4, 4, EPixelType::RGBA, EDataType::UShort));
            }));
  EXPECT_EQ("Unsupported amount of channels in ImageFormat", ThrownText([] {
              MapToCVFormat(CQvImageFormat(4, 4, EPixelType::None, EDataType::UByte));
            }));
  EXPECT_EQ(
      "Unknown pixel type", ThrownText([] {
        MapToCVFormat(CQvImageFormat(4, 4, static_cast<EPixelType::ID>(1234), EDataType::UByte));
      }));
}

TEST(FormatMapping, OpenCvTypesToImageIds) {
  EXPECT_EQ(EPixelType::Lum, PixelTypeFromCVFormat(CV_8UC1));
  EXPECT_EQ(EPixelType::LumA, PixelTypeFromCVFormat(CV_8UC2));
  EXPECT_EQ(EPixelType::RGB, PixelTypeFromCVFormat(CV_8UC3));
  EXPECT_EQ(EPixelType::RGBA, PixelTypeFromCVFormat(CV_8UC4));
  for (int iType : {CV_8UC1, CV_8UC2, CV_8UC3, CV_8UC4})
    EXPECT_EQ(EDataType::UByte, DataTypeFromCVFormat(iType));
  for (int iType : {CV_16UC1, CV_32FC4, CV_8SC1, 5000}) {
    EXPECT_EQ("Unsupported CV type provided", ThrownText([&] { PixelTypeFromCVFormat(iType); }));
    EXPECT_EQ("Unsupported CV type provided", ThrownText([&] { DataTypeFromCVFormat(iType); }));
  }
  // No channel order survives a matrix: a mosaic comes back as Lum.
  EXPECT_EQ(EPixelType::Lum, PixelTypeFromCVFormat(MapToCVFormat(
                                 CQvImageFormat(2, 2, EPixelType::BayerBG, EDataType::UByte))));
}

// A writable frame of real GStreamer layout, every byte preset to 0xEE.
class CFrame {
 public:
  CFrame(GstVideoFormat eFormat, int w, int h) {
    gst_video_info_set_format(&m_xInfo, eFormat, w, h);
    m_pxBuffer = gst_buffer_new_allocate(NULL, GST_VIDEO_INFO_SIZE(&m_xInfo), NULL);
    gst_buffer_memset(m_pxBuffer, 0, 0xEE, GST_VIDEO_INFO_SIZE(&m_xInfo));
    m_bMapped = gst_video_frame_map(&m_xFrame, &m_xInfo, m_pxBuffer, GST_MAP_READWRITE);
    EXPECT_TRUE(m_bMapped);
  }
  ~CFrame() {
    if (m_bMapped) gst_video_frame_unmap(&m_xFrame);
    gst_buffer_unref(m_pxBuffer);
  }
  GstVideoFrame* Get() { return &m_xFrame; }
  uint8_t* Plane(int i) { return static_cast<uint8_t*>(m_xFrame.data[i]); }
  int Stride(int i) const { return GST_VIDEO_INFO_PLANE_STRIDE(&m_xInfo, i); }
  size_t Size() const { return GST_VIDEO_INFO_SIZE(&m_xInfo); }
  std::vector<uint8_t> Bytes() {
    std::vector<uint8_t> x(Size());
    gst_buffer_extract(m_pxBuffer, 0, x.data(), x.size());
    return x;
  }

 private:
  GstVideoInfo m_xInfo;
  GstBuffer* m_pxBuffer = nullptr;
  GstVideoFrame m_xFrame;
  bool m_bMapped = false;
};

CQvImage Seeded(int w, int h, EPixelType::ID ePixel, uint32_t uSeed) {
  CQvImage x(CQvImageFormat(w, h, ePixel, EDataType::UByte));
  const std::vector<uint8_t> xBytes = QvTest::RandomBytes(x.GetImageBytes(), uSeed);
  std::memcpy(x.GetDataPtr(), xBytes.data(), xBytes.size());
  return x;
}

TEST(FrameCopy, PackedRgbaGoesOverWhole) {
  CQvImage xImage = Seeded(6, 3, EPixelType::RGBA, 1);
  CFrame xFrame(GST_VIDEO_FORMAT_RGBA, 6, 3);
  ASSERT_EQ(24, xFrame.Stride(0));
  copyQvImageToGSTFrame(xImage, xFrame.Get());
  EXPECT_EQ(0, std::memcmp(xImage.GetDataPtr(), xFrame.Plane(0), 72));
}

TEST(FrameCopy, PaddedRowsAreCopiedRowByRowAndPaddingStays) {
  // RGB of width 3: 9 bytes a row, rows 12 bytes apart.
  CQvImage xImage = Seeded(3, 4, EPixelType::RGB, 2);
  CFrame xFrame(GST_VIDEO_FORMAT_RGB, 3, 4);
  ASSERT_EQ(12, xFrame.Stride(0));
  copyQvImageToGSTFrame(xImage, xFrame.Get());
  const std::vector<uint8_t> xOut = xFrame.Bytes();
  const auto* pSrc = static_cast<const uint8_t*>(xImage.GetDataPtr());
  for (int y = 0; y < 4; ++y) {
    EXPECT_EQ(0, std::memcmp(pSrc + 9 * y, xOut.data() + 12 * y, 9)) << y;
    for (int i = 9; i < 12; ++i) EXPECT_EQ(0xEE, xOut[12 * y + i]) << y;
  }
}

TEST(FrameCopy, MosaicGoesOnlyIntoItsOwnMosaicOrLum) {
  CQvImage xGR = Seeded(4, 2, EPixelType::BayerGR, 3);
  CFrame xGray(GST_VIDEO_FORMAT_GRAY8, 4, 2);
  copyQvImageToGSTFrame(xGR, xGray.Get());
  EXPECT_EQ(0, std::memcmp(xGR.GetDataPtr(), xGray.Plane(0), 8));

  CQvImage xRG = Seeded(4, 2, EPixelType::BayerRG, 4);
  CFrame xGray2(GST_VIDEO_FORMAT_GRAY8, 4, 2);
  EXPECT_EQ("cannot copy QvImage to gstframe",
            ThrownText([&] { copyQvImageToGSTFrame(xRG, xGray2.Get()); }));
  EXPECT_EQ(std::vector<uint8_t>(xGray2.Size(), 0xEE), xGray2.Bytes());

  // I420 maps to Lum: a mosaic passes and fills plane Y.
  CFrame xI420(GST_VIDEO_FORMAT_I420, 4, 2);
  copyQvImageToGSTFrame(xRG, xI420.Get());
  EXPECT_EQ(0, std::memcmp(xRG.GetDataPtr(), xI420.Plane(0), 8));
}

TEST(FrameCopy, RgbaIntoBgraIsCopiedWithoutReordering) {
  CQvImage xImage = Seeded(2, 2, EPixelType::RGBA, 5);
  CFrame xFrame(GST_VIDEO_FORMAT_BGRA, 2, 2);
  copyQvImageToGSTFrame(xImage, xFrame.Get());
  EXPECT_EQ(0, std::memcmp(xImage.GetDataPtr(), xFrame.Plane(0), 16));
}

TEST(FrameCopy, NothingIsReadOrWrittenPastEitherSide) {
  // An RGBA image's rows do not fit a GRAY8 frame's stride, and an image smaller than the
  // frame cannot fill it: both are refused before a byte moves.
  CQvImage xRgba = Seeded(8, 2, EPixelType::RGBA, 6);
  CFrame xGray(GST_VIDEO_FORMAT_GRAY8, 8, 2);
  EXPECT_EQ(
      "cannot copy QvImage to gstframe: the frame's rows are shorter than the image's (8 "
      "for 32 bytes)",
      ThrownText([&] { copyQvImageToGSTFrame(xRgba, xGray.Get()); }));
  EXPECT_EQ(std::vector<uint8_t>(xGray.Size(), 0xEE), xGray.Bytes());
  CQvImage xSmall = Seeded(4, 2, EPixelType::RGBA, 7);
  CFrame xLarge(GST_VIDEO_FORMAT_RGBA, 4, 3);
  EXPECT_EQ(
      "cannot copy QvImage to gstframe: the image is smaller than the frame (32 for 48 "
      "bytes)",
      ThrownText([&] { copyQvImageToGSTFrame(xSmall, xLarge.Get()); }));
}

TEST(FrameCopyYuv, StackedPlanesGoToTheirPlanes) {
  CQvImage xStacked = Seeded(8, 6, EPixelType::Lum, 8);
  CFrame xFrame(GST_VIDEO_FORMAT_I420, 8, 4);
  copyQvImageToGSTFrame_YUV(xStacked, xFrame.Get());
  const auto* p = static_cast<const uint8_t*>(xStacked.GetDataPtr());
  EXPECT_EQ(0, std::memcmp(p, xFrame.Plane(0), 32));
  EXPECT_EQ(0, std::memcmp(p + 32, xFrame.Plane(1), 8));
  EXPECT_EQ(0, std::memcmp(p + 40, xFrame.Plane(2), 8));
}

TEST(FrameCopyYuv, WrongTypeOrStridesAreRefusedAndNothingIsWritten) {
  CQvImage xMosaic = Seeded(8, 6, EPixelType::BayerGR, 9);
  CFrame xFrame(GST_VIDEO_FORMAT_I420, 8, 4);
  EXPECT_EQ("invalid pix type",
            ThrownText([&] { copyQvImageToGSTFrame_YUV(xMosaic, xFrame.Get()); }));
  // Width 6: plane Y is 8 bytes a row. Width 12: chroma rows of 6 lie 8 apart.
  for (int iWidth : {6, 12}) {
    CQvImage xStacked = Seeded(iWidth, 6, EPixelType::Lum, 10);
    CFrame xPadded(GST_VIDEO_FORMAT_I420, iWidth, 4);
    EXPECT_EQ("Error: linestride missmatch",
              ThrownText([&] { copyQvImageToGSTFrame_YUV(xStacked, xPadded.Get()); }))
        << iWidth;
    EXPECT_EQ(std::vector<uint8_t>(xPadded.Size(), 0xEE), xPadded.Bytes()) << iWidth;
  }
}

TEST(FrameRead, FrameBecomesAViewOfPlaneZero) {
  CFrame xGray(GST_VIDEO_FORMAT_GRAY8, 8, 2);
  const CQvImageMoniker xView = copyGSTFrameToQvImage(xGray.Get());
  EXPECT_EQ(CQvImageFormat(8, 2, EPixelType::BayerGR, EDataType::UByte), xView.GetFormat());
  EXPECT_EQ(xGray.Plane(0), xView.GetDataPtr());
  CFrame xI420(GST_VIDEO_FORMAT_I420, 8, 4);
  EXPECT_EQ(CQvImageFormat(8, 4, EPixelType::Lum, EDataType::UByte),
            copyGSTFrameToQvImage(xI420.Get()).GetFormat());
  CFrame xRgbx(GST_VIDEO_FORMAT_RGBx, 3, 3);
  EXPECT_EQ(CQvImageFormat(3, 3, EPixelType::RGBA, EDataType::UByte),
            copyGSTFrameToQvImage(xRgbx.Get()).GetFormat());
  CFrame xYuy2(GST_VIDEO_FORMAT_YUY2, 4, 2);
  EXPECT_EQ("Pixel type cannot be determined",
            ThrownText([&] { copyGSTFrameToQvImage(xYuy2.Get()); }));
}

TEST(DeviceMatrix, WrapsTheDeviceMemoryWithoutACopy) {
  CQvDeviceImage2D xImage(Seeded(5, 3, EPixelType::RGBA, 11));
  const cv::cuda::GpuMat xMat = QvDevImgToCvMat(&xImage);
  EXPECT_EQ(3, xMat.rows);
  EXPECT_EQ(5, xMat.cols);
  EXPECT_EQ(CV_8UC4, xMat.type());
  EXPECT_EQ(xImage.GetDevicePointer(), static_cast<void*>(xMat.data));
  EXPECT_EQ(xImage.GetDevicePitch(), xMat.step);
  CQvDeviceImage2D xWide(CQvImageFormat(5, 3, EPixelType::RGBA, EDataType::UShort));
  EXPECT_EQ("Unsupported data type provided", ThrownText([&] { QvDevImgToCvMat(&xWide); }));
}

TEST(DeviceMatrix, CopiesIntoANewOrAMatchingImage) {
  const CQvImage xHost = Seeded(7, 3, EPixelType::BGR, 12);
  CQvDeviceImage2D xSource(xHost);
  cv::cuda::GpuMat xMat = QvDevImgToCvMat(&xSource);
  CQvDeviceImage2D xTarget;
  CvMatToQvDevImg(xMat, &xTarget, true);
  // A matrix has no channel order: BGR comes back as RGB, with the same bytes.
  EXPECT_EQ(CQvImageFormat(7, 3, EPixelType::RGB, EDataType::UByte), xTarget.GetFormat());
  CQvImage xBack;
  xTarget.CopyTo(xBack);
  EXPECT_EQ(0, std::memcmp(xHost.GetDataPtr(), xBack.GetDataPtr(), xHost.GetImageBytes()));

  CQvDeviceImage2D xSame(CQvImageFormat(7, 3, EPixelType::RGB, EDataType::UByte));
  CvMatToQvDevImg(xMat, &xSame, false);
  CQvDeviceImage2D xOther(CQvImageFormat(7, 4, EPixelType::RGB, EDataType::UByte));
  EXPECT_EQ("Incompatible formats provided",
            ThrownText([&] { CvMatToQvDevImg(xMat, &xOther, false); }));
}

}  // namespace
