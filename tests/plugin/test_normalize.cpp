// The normalize element and the gray reference it reads when it is made (QV_GRAY_REFERENCE).
#include <unistd.h>

#include <cmath>
#include <cstdio>

#include "FileIO.h"
#include "GstTestUtil.h"

using namespace Qv;

TEST(Normalize, FramesAreDividedByTheReferenceReadAtCreationOrFailWithoutAFittingOne) {
  ASSERT_TRUE(qv_register_host_elements());
  const std::string sPath = ::testing::TempDir() + "qv-gray-" + std::to_string(getpid()) + ".png";
  setenv("QV_GRAY_REFERENCE", sPath.c_str(), 1);
  const char* szCaps = "video/x-raw,format=RGBA,width=4,height=2,framerate=30/1";
  CQvImage xGray(CQvImageFormat(4, 2, EPixelType::Lum, EDataType::UByte));
  const uint8_t aGray[8] = {255, 200, 128, 64, 1, 0, 90, 180};
  std::memcpy(xGray.GetDataPtr(), aGray, 8);
  // Without a file the element is made and fails frames; a reference of another size too.
  for (const char* szWidth : {"4", "3"}) {
    testing::internal::CaptureStdout();
    auto h = QvTest::Harness("qvcudanormalize", (std::string("video/x-raw,format=RGBA,width=") +
                                                 szWidth + ",height=2,framerate=30/1")
                                                    .c_str());
    const std::string sMade = testing::internal::GetCapturedStdout();
    const bool bNoFile = *szWidth == '4';
    EXPECT_EQ(bNoFile, sMade.find("Cannot open image file '" + sPath + "'") != sMade.npos);
    const std::string sOut = QvTest::PushCaptured(
        h.get(),
        QvTest::DeviceImageBuffer(QvTest::SeededImage(*szWidth - '0', 2, EPixelType::RGBA, 9)),
        GST_FLOW_ERROR);
    for (const std::string& sWant :
         bNoFile ? std::vector<std::string>{"no gray reference image: '" + sPath +
                                            "' could not be read when the element was made"}
                 : std::vector<std::string>{"  :   Error normalizing raw image with gray image\n",
                                            "Source and gray image are of different sizes. "
                                            "Source image is '3x2, RGBA, UByte'. Gray image is "
                                            "'4x2, RGBA, UByte'"})
      EXPECT_NE(std::string::npos, sOut.find(sWant)) << sOut;
    FileIO::CImage::WritePNG(xGray, sPath.c_str());
  }
  // The property is kept but chooses no file: frames divide by the file read at creation.
  g_autoptr(GstElement) pxElement = gst_element_factory_make("qvcudanormalize", NULL);
  for (const char* szWant : {"gray4k.png", "/nowhere/other.png"}) {
    g_autofree gchar* szValue = NULL;
    g_object_get(pxElement, "gray", &szValue, NULL);
    EXPECT_STREQ(szWant, szValue);
    g_object_set(pxElement, "gray", "/nowhere/other.png", NULL);
  }
  QvTest::CHarness h(gst_harness_new_with_element(pxElement, "sink", "src"), gst_harness_teardown);
  gst_harness_set_src_caps_str(h.get(), szCaps);
  for (uint32_t uFrame = 1; uFrame <= 2; ++uFrame) {
    const CQvImage xSource = QvTest::SeededImage(4, 2, EPixelType::RGBA, uFrame);
    g_autoptr(GstBuffer) pxOut =
        gst_harness_push_and_pull(h.get(), QvTest::DeviceImageBuffer(xSource));
    ASSERT_NE(nullptr, pxOut);
    // The gray file becomes R = G = B = v, alpha 255; every channel is divided, alpha too, and
    // stored as 8 bits (scale, clamp, truncate; 0 / 0 gives 255).
    std::vector<uint8_t> xWant = QvTest::Bytes(xSource);
    for (int i = 0; i < 32; ++i) {
      const float v = (xWant[i] / 255.0f) / ((i % 4 == 3 ? 255 : aGray[i / 4]) / 255.0f) * 255.0f;
      xWant[i] = v != v ? 255 : static_cast<uint8_t>(std::fmax(0.0f, std::fmin(255.0f, v)));
    }
    EXPECT_EQ(xWant, QvTest::Bytes(QvTest::DownloadBufferImage(pxOut)));
  }
  EXPECT_TRUE(QvTest::CapsAre(gst_pad_get_current_caps(h->sinkpad), szCaps));
  std::remove(sPath.c_str());
  unsetenv("QV_GRAY_REFERENCE");
}
