// The normalize element and its gray reference: the file that "gray" names (QV_GRAY_REFERENCE
// moves the default), read at each start.
#include <unistd.h>

#include <cmath>
#include <cstdio>

#include "FileIO.h"
#include "GstTestUtil.h"

using namespace Qv;

TEST(Normalize, FramesAreDividedByTheReferenceThatGrayNamesAtStart) {
  const std::string sPath = ::testing::TempDir() + "qv-gray-" + std::to_string(getpid()) + ".png";
  setenv("QV_GRAY_REFERENCE", sPath.c_str(), 1);
  ASSERT_TRUE(qv_register_host_elements());
  const char* szCaps = "video/x-raw,format=RGBA,width=4,height=2,framerate=30/1";
  CQvImage xGray(CQvImageFormat(4, 2, EPixelType::Lum, EDataType::UByte));
  const uint8_t aGray[8] = {255, 200, 128, 64, 1, 0, 90, 180};
  std::memcpy(xGray.GetDataPtr(), aGray, 8);
  // Nothing is read or printed when the element is made; a start without the file fails on the
  // bus and names it.
  Qv::CMessageCapture xMessages;
  g_autoptr(GstElement) pxElement = gst_element_factory_make("qvcudanormalize", NULL);
  EXPECT_EQ("", xMessages.Text());
  g_autofree gchar* szDefault = NULL;
  g_object_get(pxElement, "gray", &szDefault, NULL);
  EXPECT_EQ(sPath, szDefault);
  g_autoptr(GstBus) pxBus = gst_bus_new();
  gst_element_set_bus(pxElement, pxBus);
  EXPECT_EQ(GST_STATE_CHANGE_FAILURE, gst_element_set_state(pxElement, GST_STATE_PAUSED));
  g_autoptr(GstMessage) pxError = gst_bus_pop_filtered(pxBus, GST_MESSAGE_ERROR);
  ASSERT_NE(nullptr, pxError);
  EXPECT_NE(std::string::npos, QvTest::MessageText(pxError).find("'" + sPath + "'"));
  gst_element_set_state(pxElement, GST_STATE_NULL);
  // The file written since, and named by the property, is read at the next start.
  FileIO::CImage::WritePNG(xGray, sPath.c_str());
  g_object_set(pxElement, "gray", sPath.c_str(), NULL);
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
  // A reference of another size than the frames fails each frame.
  auto h3 = QvTest::Harness("qvcudanormalize", "video/x-raw,format=RGBA,width=3,height=2");
  const std::string sOut = QvTest::PushCaptured(
      h3.get(), QvTest::DeviceImageBuffer(QvTest::SeededImage(3, 2, EPixelType::RGBA, 9)),
      GST_FLOW_ERROR);
  EXPECT_NE(std::string::npos, sOut.find("Source and gray image are of different sizes")) << sOut;
  std::remove(sPath.c_str());
  unsetenv("QV_GRAY_REFERENCE");
}
