// The normalize element: the reference file it reads (moved by QV_GRAY_REFERENCE), its
// property, and frames with and without a reference.
#include <gst/check/gstharness.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "FileIO.h"
#include "GstTestUtil.h"
#include "QvDeviceImage2D.h"
#include "gstqvHostElements.h"

using namespace Qv;

namespace {

#define RGBA_CAPS "video/x-raw,format=RGBA,width=4,height=2,framerate=30/1"

uint32_t Store8(float v) {
  if (v != v) return 255;
  float s = v * 255.0f;
  if (s > 255.0f) s = 255.0f;
  if (s < 0.0f) s = 0.0f;
  return static_cast<uint32_t>(s);
}

class NormalizeElementTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(qv_register_host_elements()); }
  void TearDown() override {
    unsetenv("QV_GRAY_REFERENCE");
    if (!m_sGrayPath.empty()) std::remove(m_sGrayPath.c_str());
  }

  // A gray 8-bit PNG of 4 x 2 whose pixel i is aValues[i].
  void WriteReference(const uint8_t (&aValues)[8]) {
    m_sGrayPath = ::testing::TempDir() + "qv-normalize-gray-" + std::to_string(getpid()) + "-" +
                  ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".png";
    CQvImage xGray(CQvImageFormat(4, 2, EPixelType::Lum, EDataType::UByte));
    std::memcpy(xGray.GetDataPtr(), aValues, 8);
    FileIO::CImage::WritePNG(xGray, m_sGrayPath.c_str());
    setenv("QV_GRAY_REFERENCE", m_sGrayPath.c_str(), 1);
  }

  std::string m_sGrayPath;
};

CQvImage Source(uint32_t uSeed) {
  CQvImage x(CQvImageFormat(4, 2, EPixelType::RGBA, EDataType::UByte));
  const std::vector<uint8_t> xBytes = QvTest::RandomBytes(32, uSeed);
  std::memcpy(x.GetDataPtr(), xBytes.data(), 32);
  return x;
}

TEST_F(NormalizeElementTest, EachFrameIsDividedByTheReference) {
  const uint8_t aGray[8] = {255, 200, 128, 64, 1, 0, 90, 180};
  WriteReference(aGray);
  GstHarness* pxHarness = gst_harness_new("qvcudanormalize");
  gst_harness_set_src_caps_str(pxHarness, RGBA_CAPS);
  for (uint32_t uFrame = 0; uFrame < 2; ++uFrame) {
    const CQvImage xSource = Source(uFrame + 1);
    GstBuffer* pxOut = gst_harness_push_and_pull(pxHarness, QvTest::DeviceImageBuffer(xSource));
    ASSERT_NE(nullptr, pxOut);
    const CQvImage xOut = QvTest::DownloadBufferImage(pxOut);
    gst_buffer_unref(pxOut);
    ASSERT_EQ(CQvImageFormat(4, 2, EPixelType::RGBA, EDataType::UByte), xOut.GetFormat());
    // The gray file becomes R = G = B = v, alpha 255; every channel is divided, alpha too.
    const auto* pIn = static_cast<const uint8_t*>(xSource.GetDataPtr());
    const auto* pOut = static_cast<const uint8_t*>(xOut.GetDataPtr());
    for (int i = 0; i < 32; ++i) {
      const uint8_t uGray = i % 4 == 3 ? 255 : aGray[i / 4];
      EXPECT_EQ(Store8((pIn[i] / 255.0f) / (uGray / 255.0f)), pOut[i]) << i;
    }
  }
  GstCaps* pxCaps = gst_pad_get_current_caps(pxHarness->sinkpad);
  EXPECT_TRUE(QvTest::CapsEqualString(pxCaps, RGBA_CAPS));
  gst_caps_unref(pxCaps);
  gst_harness_teardown(pxHarness);
}

TEST_F(NormalizeElementTest, WithoutAReferenceFileTheElementExistsAndEveryFrameFails) {
  const std::string sMissing = ::testing::TempDir() + "qv-no-such-gray.png";
  setenv("QV_GRAY_REFERENCE", sMissing.c_str(), 1);
  testing::internal::CaptureStdout();
  GstHarness* pxHarness = gst_harness_new("qvcudanormalize");
  std::string sOut = testing::internal::GetCapturedStdout();
  EXPECT_NE(std::string::npos, sOut.find("Cannot open image file '" + sMissing + "'")) << sOut;
  gst_harness_set_src_caps_str(pxHarness, RGBA_CAPS);
  for (int i = 0; i < 2; ++i) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(GST_FLOW_ERROR, gst_harness_push(pxHarness, QvTest::DeviceImageBuffer(Source(3))));
    sOut = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, sOut.find("exception catched: \n"));
    EXPECT_NE(std::string::npos, sOut.find("no gray reference image: '" + sMissing +
                                           "' could not be read when the element was made"))
        << sOut;
  }
  gst_harness_teardown(pxHarness);
}

TEST_F(NormalizeElementTest, TheGrayPropertyIsKeptButChoosesNoFile) {
  const uint8_t aGray[8] = {255, 255, 255, 255, 255, 255, 255, 255};
  WriteReference(aGray);
  GstElement* pxElement = gst_element_factory_make("qvcudanormalize", NULL);
  ASSERT_NE(nullptr, pxElement);
  gchar* szValue = NULL;
  g_object_get(pxElement, "gray", &szValue, NULL);
  EXPECT_STREQ("gray4k.png", szValue);
  g_free(szValue);
  g_object_set(pxElement, "gray", "/nowhere/other.png", NULL);
  g_object_get(pxElement, "gray", &szValue, NULL);
  EXPECT_STREQ("/nowhere/other.png", szValue);
  g_free(szValue);

  // Frames still divide by the file that was read at creation: a white reference keeps them.
  GstHarness* pxHarness = gst_harness_new_with_element(pxElement, "sink", "src");
  gst_harness_set_src_caps_str(pxHarness, RGBA_CAPS);
  const CQvImage xSource = Source(9);
  GstBuffer* pxOut = gst_harness_push_and_pull(pxHarness, QvTest::DeviceImageBuffer(xSource));
  ASSERT_NE(nullptr, pxOut);
  const CQvImage xOut = QvTest::DownloadBufferImage(pxOut);
  const auto* pIn = static_cast<const uint8_t*>(xSource.GetDataPtr());
  const auto* pOut = static_cast<const uint8_t*>(xOut.GetDataPtr());
  for (int i = 0; i < 32; ++i) EXPECT_EQ(Store8(pIn[i] / 255.0f / 1.0f), pOut[i]) << i;
  gst_buffer_unref(pxOut);
  gst_harness_teardown(pxHarness);
  gst_object_unref(pxElement);
}

TEST_F(NormalizeElementTest, AReferenceOfAnotherPixelCountFailsTheFrame) {
  const uint8_t aGray[8] = {10, 20, 30, 40, 50, 60, 70, 80};
  WriteReference(aGray);
  GstHarness* pxHarness = gst_harness_new("qvcudanormalize");
  gst_harness_set_src_caps_str(pxHarness,
                               "video/x-raw,format=RGBA,width=3,height=2,framerate=30/1");
  CQvImage xSmall(CQvImageFormat(3, 2, EPixelType::RGBA, EDataType::UByte));
  std::memset(xSmall.GetDataPtr(), 9, xSmall.GetImageBytes());
  testing::internal::CaptureStdout();
  EXPECT_EQ(GST_FLOW_ERROR, gst_harness_push(pxHarness, QvTest::DeviceImageBuffer(xSmall)));
  const std::string sOut = testing::internal::GetCapturedStdout();
  EXPECT_NE(std::string::npos, sOut.find("  :   Error normalizing raw image with gray image\n"));
  EXPECT_NE(std::string::npos,
            sOut.find("Source and gray image are of different sizes. Source image is '3x2, RGBA, "
                      "UByte'. Gray image is '4x2, RGBA, UByte'"));
  gst_harness_teardown(pxHarness);
}

}  // namespace
