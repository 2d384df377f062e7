// Format mapping between GStreamer, the image ids and OpenCV, and the frame copy functions.

#include <opencv2/core/cuda.hpp>
#include <type_traits>

#include "GstTestUtil.h"

using namespace Qv;
using QvTest::SeededImage;

// The id a call gives, nothing for a call without one, or the text of what it throws.
template <class F>
std::string Outcome(F fn) {
  try {
    if constexpr (std::is_void_v<decltype(fn())>)
      return fn(), "";
    else
      return std::to_string(fn());
  } catch (const CQvException& e) {
    return e.GetMessageText();
  }
}
using P = EPixelType;
using D = EDataType;
#define F(x) GST_VIDEO_FORMAT_##x

TEST(FormatMapping, GstFormatsToPixelAndDataTypes) {
  // -1: refused. The tables differ: I420_10LE has no data type, RGB16 and BGR16 no pixel type.
  // clang-format off
  const std::map<GstVideoFormat, std::pair<int, int>> xTable = {
      {F(ENCODED), {P::Lum, D::UShort}}, {F(I420), {P::Lum, D::UByte}}, {F(I420_10LE), {P::Lum, -1}},
      {F(RGBx), {P::RGBA, D::UByte}}, {F(RGBA), {P::RGBA, D::UByte}}, {F(BGRx), {P::BGRA, D::UByte}},
      {F(BGRA), {P::BGRA, D::UByte}}, {F(RGB), {P::RGB, D::UByte}}, {F(BGR), {P::BGR, D::UByte}},
      {F(GRAY8), {P::BayerGR, D::UByte}}, {F(GRAY16_BE), {P::BayerGR, D::UShort}},
      {F(GRAY16_LE), {P::BayerGR, D::UShort}}, {F(RGB16), {-1, D::UShort}},
      {F(BGR16), {-1, D::UShort}}, {F(RGBA64_LE), {P::RGBA, D::UShort}}};
  // clang-format on
  guint uCount = 0;
  const GstVideoFormat* pFormats = gst_video_formats_raw(&uCount);
  std::vector<GstVideoFormat> xAll(pFormats, pFormats + uCount);
  xAll.push_back(F(ENCODED));
  for (GstVideoFormat eFormat : xAll) {
    SCOPED_TRACE(gst_video_format_to_string(eFormat));
    GstVideoFrame xFrame;  // names only its format, as the mapping reads it
    std::memset(&xFrame, 0, sizeof(xFrame));
    xFrame.info.finfo = gst_video_format_get_info(eFormat);
    const auto x = xTable.count(eFormat) ? xTable.at(eFormat) : std::pair{-1, -1};
    EXPECT_EQ(x.first < 0 ? "Pixel type cannot be determined" : std::to_string(x.first),
              Outcome([&] { return MapGstToQvPixType(&xFrame); }));
    EXPECT_EQ(x.second < 0 ? "Data type cannot be determined" : std::to_string(x.second),
              Outcome([&] { return MapGstToQvDataType(&xFrame); }));
  }
}

TEST(FormatMapping, ImageIdsToGstFormatsAndOpenCvTypesAndBack) {
  // clang-format off
  const std::map<P::ID, GstVideoFormat> xGst = {
      {P::Lum, F(GRAY8)}, {P::RGB, F(RGB)}, {P::RGBA, F(RGBA)}, {P::BGR, F(BGR)}, {P::BGRA, F(BGRA)}};
  const std::map<P::ID, int> xCv = {
      {P::Lum, CV_8UC1}, {P::BayerRG, CV_8UC1}, {P::BayerBG, CV_8UC1}, {P::BayerGR, CV_8UC1},
      {P::BayerGB, CV_8UC1}, {P::LumA, CV_8UC2}, {P::Unknown, CV_8UC2}, {P::RGB, CV_8UC3},
      {P::BGR, CV_8UC3}, {P::RGBA, CV_8UC4}, {P::BGRA, CV_8UC4}};
  // clang-format on
  for (auto [e, iCv] : xCv) {
    EXPECT_EQ(iCv, MapToCVFormat(CQvImageFormat(4, 4, e, D::UByte))) << e;
    EXPECT_EQ(xGst.count(e) ? xGst.at(e) : F(UNKNOWN), MapQvToGstFormat(e)) << e;
  }
  EXPECT_EQ(F(UNKNOWN), MapQvToGstFormat(P::None));
  // The data type is tested first.
  for (auto [ePixel, eData, szText] :
       {std::tuple{P::RGBA, D::UShort, "Unsupported data type provided"},
        {P::None, D::UByte, "Unsupported amount of channels in ImageFormat"},
        {static_cast<P::ID>(1234), D::UByte, "Unknown pixel type"}})
    EXPECT_EQ(szText, Outcome([&] { return MapToCVFormat(CQvImageFormat(4, 4, ePixel, eData)); }));
  // And back: a matrix type keeps only the channel count.
  const P::ID aPixel[] = {P::Lum, P::LumA, P::RGB, P::RGBA};
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(std::pair(aPixel[i], D::UByte),
              std::pair(PixelTypeFromCVFormat(CV_8UC(i + 1)), DataTypeFromCVFormat(CV_8UC(i + 1))));
  for (int iType : {CV_16UC1, CV_32FC4, CV_8SC1, 5000})
    EXPECT_EQ("Unsupported CV type provided Unsupported CV type provided",
              Outcome([&] { return PixelTypeFromCVFormat(iType); }) + " " +
                  Outcome([&] { return DataTypeFromCVFormat(iType); }));
}

// A mapped frame of real GStreamer layout over bytes preset to 0xEE.
struct SFrame {
  SFrame(GstVideoFormat eFormat, int w, int h) {
    gst_video_info_set_format(&xInfo, eFormat, w, h);
    xBytes.assign(xInfo.size, 0xEE);
    GstBuffer* pxBuffer = gst_buffer_new_wrapped_full(static_cast<GstMemoryFlags>(0), xBytes.data(),
                                                      xInfo.size, 0, xInfo.size, NULL, NULL);
    EXPECT_TRUE(gst_video_frame_map(&xFrame, &xInfo, pxBuffer, GST_MAP_READWRITE));
    gst_buffer_unref(pxBuffer);  // the mapped frame holds it
  }
  ~SFrame() { gst_video_frame_unmap(&xFrame); }
  GstVideoInfo xInfo;
  std::vector<uint8_t> xBytes;
  GstVideoFrame xFrame;
};

TEST(FrameCopy, RowsGoToTheFrameStrideAndRefusalsWriteNothing) {
  // Image pixel type, frame format, width, height, frame height, what is thrown.
  // clang-format off
  for (auto [ePixel, eFrame, w, h, iFrameH, szError] : {
      std::tuple{P::RGBA, F(RGBA), 6, 3, 3, ""},  // packed: 24 bytes a row
      {P::RGB, F(RGB), 3, 4, 4, ""},              // 9 bytes a row, 12 apart: the padding stays
      {P::RGBA, F(BGRA), 2, 2, 2, ""},            // no reordering
      {P::BayerGR, F(GRAY8), 4, 2, 2, ""},        // a gray frame is a GRBG mosaic
      {P::BayerRG, F(I420), 4, 2, 2, ""},         // I420 is Lum: plane Y
      {P::BayerRG, F(GRAY8), 4, 2, 2, "cannot copy QvImage to gstframe"},
      {P::RGBA, F(GRAY8), 8, 2, 2, "cannot copy QvImage to gstframe: the frame's rows are shorter "
                                   "than the image's (8 for 32 bytes)"},
      {P::RGBA, F(RGBA), 4, 2, 3, "cannot copy QvImage to gstframe: the image is smaller than the "
                                  "frame (32 for 48 bytes)"}}) {
    // clang-format on
    SCOPED_TRACE(std::string(gst_video_format_to_string(eFrame)) + " " + std::to_string(w));
    CQvImage xImage = SeededImage(w, h, ePixel, w + h);
    SFrame xFrame(eFrame, w, iFrameH);
    EXPECT_EQ(szError, Outcome([&] { copyQvImageToGSTFrame(xImage, &xFrame.xFrame); }));
    std::vector<uint8_t> xWant(xFrame.xInfo.size, 0xEE);
    const size_t uRow = xImage.GetFormat().GetRowBytes();
    for (int y = 0; !*szError && y < h; ++y)
      std::memcpy(&xWant[GST_VIDEO_INFO_PLANE_STRIDE(&xFrame.xInfo, 0) * y],
                  static_cast<const uint8_t*>(xImage.GetDataPtr()) + uRow * y, uRow);
    EXPECT_EQ(xWant, xFrame.xBytes);
  }
}

TEST(FrameCopy, StackedYuvGoesToThreePlanesOfMatchingStrides) {
  // Width 8: planes of 32, 8 and 8 bytes, one after the other. Width 6: plane Y is 8 bytes a
  // row. Width 12: chroma rows of 6 lie 8 apart.
  for (auto [ePixel, w, szError] : {std::tuple{P::Lum, 8, ""},
                                    {P::BayerGR, 8, "invalid pix type"},
                                    {P::Lum, 6, "Error: linestride missmatch"},
                                    {P::Lum, 12, "Error: linestride missmatch"}}) {
    CQvImage xStacked = SeededImage(w, 6, ePixel, w);
    SFrame xFrame(F(I420), w, 4);
    EXPECT_EQ(szError, Outcome([&] { copyQvImageToGSTFrame_YUV(xStacked, &xFrame.xFrame); })) << w;
    const auto* p = static_cast<const uint8_t*>(xStacked.GetDataPtr());
    EXPECT_EQ(*szError ? std::vector<uint8_t>(xFrame.xInfo.size, 0xEE) : std::vector(p, p + 48),
              xFrame.xBytes)
        << w;
  }
}

TEST(DeviceMatrix, WrapsWithoutACopyAndCopiesIntoAMatchingImageOnly) {
  const CQvImage xHost = SeededImage(7, 3, P::RGB, 12);
  CQvDeviceImage2D xSource(xHost), xTarget, xOther(CQvImageFormat(7, 4, P::RGB, D::UByte));
  cv::cuda::GpuMat xMat = QvDevImgToCvMat(&xSource);
  CvMatToQvDevImg(xMat, &xTarget, true);
  CQvImage xBack;
  xTarget.CopyTo(xBack);
  EXPECT_EQ(QvTest::Bytes(xHost), QvTest::Bytes(xBack));
  EXPECT_EQ("Incompatible formats provided",
            Outcome([&] { CvMatToQvDevImg(xMat, &xOther, false); }));
}
