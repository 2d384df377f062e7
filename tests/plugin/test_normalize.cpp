// The normalize element: the reference file it reads (moved by QV_GRAY_REFERENCE), its
// property, and frames with and without a fitting reference.
#include <unistd.h>

#include <cmath>
#include <cstdio>

#include "FileIO.h"
#include "GstTestUtil.h"

using namespace Qv;

class NormalizeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(qv_register_host_elements());
    setenv("QV_GRAY_REFERENCE", m_sPath.c_str(), 1);
  }
  void TearDown() override {
    unsetenv("QV_GRAY_REFERENCE");
    std::remove(m_sPath.c_str());
  }
  // A gray 8-bit PNG of 4 x 2 of the values.
  void WriteReference(const std::vector<uint8_t>& xValues) {
    CQvImage xGray(CQvImageFormat(4, 2, EPixelType::Lum, EDataType::UByte));
    std::memcpy(xGray.GetDataPtr(), xValues.data(), 8);
    FileIO::CImage::WritePNG(xGray, m_sPath.c_str());
  }
  const std::string m_sPath = ::testing::TempDir() + "qv-gray-" + std::to_string(getpid()) + ".png";
};

TEST_F(NormalizeTest, EachFrameIsDividedByTheFileReadAtCreationNotByTheProperty) {
  const std::vector<uint8_t> xGray = {255, 200, 128, 64, 1, 0, 90, 180};
  WriteReference(xGray);
  g_autoptr(GstElement) pxElement = gst_element_factory_make("qvcudanormalize", NULL);
  for (const char* szWant : {"gray4k.png", "/nowhere/other.png"}) {
    g_autofree gchar* szValue = NULL;
    g_object_get(pxElement, "gray", &szValue, NULL);
    EXPECT_STREQ(szWant, szValue);
    g_object_set(pxElement, "gray", "/nowhere/other.png", NULL);
  }
  const char* szCaps = "video/x-raw,format=RGBA,width=4,height=2,framerate=30/1";
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
      const float v = (xWant[i] / 255.0f) / ((i % 4 == 3 ? 255 : xGray[i / 4]) / 255.0f) * 255.0f;
      xWant[i] = v != v ? 255 : static_cast<uint8_t>(std::fmax(0.0f, std::fmin(255.0f, v)));
    }
    EXPECT_EQ(xWant, QvTest::Bytes(QvTest::DownloadBufferImage(pxOut)));
  }
  EXPECT_TRUE(QvTest::CapsAre(gst_pad_get_current_caps(h->sinkpad), szCaps));
}

TEST_F(NormalizeTest, FramesFailWithoutAReferenceOrWithOneOfAnotherSize) {
  for (bool bWritten : {false, true}) {
    if (bWritten) WriteReference({10, 20, 30, 40, 50, 60, 70, 80});
    testing::internal::CaptureStdout();  // the element is made even without a reference
    auto h = QvTest::Harness("qvcudanormalize",
                             "video/x-raw,format=RGBA,width=3,height=2,framerate=30/1");
    const std::string sMade = testing::internal::GetCapturedStdout();
    EXPECT_EQ(!bWritten, sMade.find("Cannot open image file '" + m_sPath + "'") != sMade.npos);
    const std::string sOut = QvTest::PushCaptured(
        h.get(), QvTest::DeviceImageBuffer(QvTest::SeededImage(3, 2, EPixelType::RGBA, 9)),
        GST_FLOW_ERROR);
    for (const std::string& sWant :
         bWritten ? std::vector<std::string>{"  :   Error normalizing raw image with gray image\n",
                                             "Source and gray image are of different sizes. "
                                             "Source image is '3x2, RGBA, UByte'. Gray image is "
                                             "'4x2, RGBA, UByte'"}
                  : std::vector<std::string>{"no gray reference image: '" + m_sPath +
                                             "' could not be read when the element was made"})
      EXPECT_NE(std::string::npos, sOut.find(sWant)) << sOut;
  }
}
