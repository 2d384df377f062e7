// The upload element through GstHarness: what it makes of each input format, its caps, what
// it carries across, and how it fails.
#include <gst/base/gstbasetransform.h>
#include <gst/check/gstharness.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "GstTestUtil.h"
#include "QvDeviceImage2D.h"
#include "plugin.h"

using namespace Qv;

namespace {

class UploadTest : public ::testing::Test {
 protected:
  void SetUp() override { m_pxHarness = gst_harness_new("qvcudaupload"); }
  void TearDown() override { gst_harness_teardown(m_pxHarness); }

  // Pushes one frame of the caps and returns the image of the output buffer.
  CQvImage Upload(const char* szCaps, int iWidth, int iHeight, uint32_t uSeed,
                  std::vector<uint8_t>* pxBytes) {
    gst_harness_set_src_caps_str(m_pxHarness, szCaps);
    *pxBytes = QvTest::FrameBytes(static_cast<size_t>(iWidth) * iHeight, uSeed);
    GstBuffer* pxOut = gst_harness_push_and_pull(m_pxHarness, QvTest::BufferFromBytes(*pxBytes));
    EXPECT_NE(nullptr, pxOut);
    if (!pxOut) return CQvImage();
    CQvImage xImage = QvTest::DownloadBufferImage(pxOut);
    gst_buffer_unref(pxOut);
    return xImage;
  }

  GstHarness* m_pxHarness = nullptr;
};

void ExpectBayerGRWithBytes(const CQvImage& xImage, int iWidth, int iHeight,
                            const std::vector<uint8_t>& xBytes) {
  EXPECT_EQ(CQvImageFormat(iWidth, iHeight, EPixelType::BayerGR, EDataType::UByte),
            xImage.GetFormat());
  ASSERT_EQ(xBytes.size(), xImage.GetFormat().GetImageBytes());
  EXPECT_EQ(0, std::memcmp(xBytes.data(), xImage.GetDataPtr(), xBytes.size()));
}

TEST_F(UploadTest, Gray8BecomesBayerGRWithTheSameBytes) {
  std::vector<uint8_t> xBytes;
  const CQvImage x =
      Upload("video/x-raw,format=GRAY8,width=7,height=5,framerate=30/1", 7, 5, 1, &xBytes);
  ExpectBayerGRWithBytes(x, 7, 5, xBytes);
}

class UploadBayerTest : public UploadTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(UploadBayerTest, EveryBayerOrderBecomesBayerGR) {
  std::string sCaps =
      std::string("video/x-bayer,format=") + GetParam() + ",width=13,height=3,framerate=0/1";
  std::vector<uint8_t> xBytes;
  const CQvImage x = Upload(sCaps.c_str(), 13, 3, 7, &xBytes);
  ExpectBayerGRWithBytes(x, 13, 3, xBytes);
}

INSTANTIATE_TEST_SUITE_P(Formats, UploadBayerTest,
                         ::testing::Values("BA81", "bggr", "grbg", "gbrg", "rggb"));

TEST_F(UploadTest, CarriesTimestampsAndCameraMeta) {
  gst_harness_set_src_caps_str(m_pxHarness,
                               "video/x-raw,format=GRAY8,width=4,height=2,framerate=30/1");
  GstBuffer* pxIn = QvTest::BufferFromBytes(QvTest::FrameBytes(8, 3));
  GST_BUFFER_PTS(pxIn) = 40 * GST_MSECOND;
  GST_BUFFER_DTS(pxIn) = 39 * GST_MSECOND;
  GST_BUFFER_DURATION(pxIn) = 33 * GST_MSECOND;
  GST_BUFFER_OFFSET(pxIn) = 12;
  auto* pxMeta = reinterpret_cast<MyMetaInfo*>(gst_buffer_add_meta(pxIn, my_meta_get_info(), NULL));
  pxMeta->exposure = 0.0125f;
  pxMeta->gain = 3.0f;

  GstBuffer* pxOut = gst_harness_push_and_pull(m_pxHarness, pxIn);
  ASSERT_NE(nullptr, pxOut);
  EXPECT_EQ(40 * GST_MSECOND, GST_BUFFER_PTS(pxOut));
  EXPECT_EQ(39 * GST_MSECOND, GST_BUFFER_DTS(pxOut));
  EXPECT_EQ(33 * GST_MSECOND, GST_BUFFER_DURATION(pxOut));
  EXPECT_EQ(12u, GST_BUFFER_OFFSET(pxOut));
  auto* pxOutMeta =
      reinterpret_cast<MyMetaInfo*>(gst_buffer_get_meta(pxOut, MY_META_INFO_API_TYPE));
  ASSERT_NE(nullptr, pxOutMeta);
  EXPECT_EQ(0.0125f, pxOutMeta->exposure);
  EXPECT_EQ(3.0f, pxOutMeta->gain);

  // GStreamer's own copy does not carry the meta: it has no transform function.
  GstBuffer* pxCopy = gst_buffer_copy(pxOut);
  EXPECT_EQ(nullptr, gst_buffer_get_meta(pxCopy, MY_META_INFO_API_TYPE));
  gst_buffer_unref(pxCopy);
  gst_buffer_unref(pxOut);
}

TEST_F(UploadTest, BufferWithoutMetaPassesWithoutOne) {
  gst_harness_set_src_caps_str(m_pxHarness,
                               "video/x-raw,format=GRAY8,width=4,height=2,framerate=30/1");
  GstBuffer* pxOut =
      gst_harness_push_and_pull(m_pxHarness, QvTest::BufferFromBytes(QvTest::FrameBytes(8, 4)));
  ASSERT_NE(nullptr, pxOut);
  EXPECT_EQ(nullptr, gst_buffer_get_meta(pxOut, MY_META_INFO_API_TYPE));
  gst_buffer_unref(pxOut);
}

TEST_F(UploadTest, ShortBufferFailsTheFrameAndTheNextFramePasses) {
  gst_harness_set_src_caps_str(m_pxHarness,
                               "video/x-raw,format=GRAY8,width=16,height=8,framerate=30/1");
  testing::internal::CaptureStdout();
  EXPECT_EQ(GST_FLOW_ERROR,
            gst_harness_push(m_pxHarness, QvTest::BufferFromBytes(QvTest::FrameBytes(100, 5))));
  const std::string sOut = testing::internal::GetCapturedStdout();
  EXPECT_NE(std::string::npos, sOut.find("exception catched: "));
  EXPECT_NE(std::string::npos, sOut.find("in buffer holds 100 bytes, a 16x8 frame needs 128"));

  const auto xBytes = QvTest::FrameBytes(128, 6);
  GstBuffer* pxOut = gst_harness_push_and_pull(m_pxHarness, QvTest::BufferFromBytes(xBytes));
  ASSERT_NE(nullptr, pxOut);
  ExpectBayerGRWithBytes(QvTest::DownloadBufferImage(pxOut), 16, 8, xBytes);
  gst_buffer_unref(pxOut);
}

TEST_F(UploadTest, CapsOutsideTheTemplateAreNotNegotiated) {
  gst_harness_set_src_caps_str(m_pxHarness,
                               "video/x-raw,format=RGB,width=4,height=2,framerate=30/1");
  EXPECT_EQ(GST_FLOW_NOT_NEGOTIATED,
            gst_harness_push(m_pxHarness, QvTest::BufferFromBytes(QvTest::FrameBytes(24, 1))));
}

TEST_F(UploadTest, LargestFrameSizeDoesNotOverflowTheByteCount) {
  // 2^31-1 squared bytes would wrap 32 bits: the frame must fail as too short, not pass.
  gst_harness_set_src_caps_str(
      m_pxHarness, "video/x-raw,format=GRAY8,width=2147483647,height=2147483647,framerate=30/1");
  testing::internal::CaptureStdout();
  EXPECT_EQ(GST_FLOW_ERROR,
            gst_harness_push(m_pxHarness, QvTest::BufferFromBytes(QvTest::FrameBytes(64, 1))));
  const std::string sOut = testing::internal::GetCapturedStdout();
  EXPECT_NE(std::string::npos, sOut.find("frame needs 4611686014132420609"));
}

class UploadCapsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_pxElement = gst_element_factory_make("qvcudaupload", NULL);
    ASSERT_NE(nullptr, m_pxElement);
  }
  void TearDown() override { gst_object_unref(m_pxElement); }
  GstCaps* Transform(GstPadDirection eDirection, const char* szCaps, const char* szFilter) {
    GstCaps* pxCaps = gst_caps_from_string(szCaps);
    GstCaps* pxFilter = szFilter ? gst_caps_from_string(szFilter) : NULL;
    GstCaps* pxResult =
        GST_BASE_TRANSFORM_GET_CLASS(m_pxElement)
            ->transform_caps(GST_BASE_TRANSFORM(m_pxElement), eDirection, pxCaps, pxFilter);
    gst_caps_unref(pxCaps);
    if (pxFilter) gst_caps_unref(pxFilter);
    return pxResult;
  }
  GstElement* m_pxElement = nullptr;
};

TEST_F(UploadCapsTest, FromTheSinkSideGivesGray8OfTheSameSizeAndRate) {
  GstCaps* x = Transform(GST_PAD_SINK,
                         "video/x-bayer,format=rggb,width=640,height=480,framerate=30/1", NULL);
  EXPECT_TRUE(
      QvTest::CapsEqualString(x, "video/x-raw,format=GRAY8,width=640,height=480,framerate=30/1"));
  gst_caps_unref(x);
  // A range goes across as the same range.
  x = Transform(GST_PAD_SINK, "video/x-raw,format=GRAY8,width=[16,320],height=480,framerate=30/1",
                NULL);
  EXPECT_TRUE(QvTest::CapsEqualString(
      x, "video/x-raw,format=GRAY8,width=[16,320],height=480,framerate=30/1"));
  gst_caps_unref(x);
}

TEST_F(UploadCapsTest, FromTheSourceSideGivesGray8WithSizeAndBayerWithRanges) {
  GstCaps* x =
      Transform(GST_PAD_SRC, "video/x-raw,format=GRAY8,width=1280,height=720,framerate=25/1", NULL);
  EXPECT_TRUE(
      QvTest::CapsEqualString(x,
                              "video/x-raw,format=GRAY8,width=1280,height=720,framerate=25/1;"
                              "video/x-bayer,format={BA81,bggr,grbg,gbrg,rggb},width=(int)[1,MAX],"
                              "height=(int)[1,MAX],framerate=(fraction)[0/1,MAX]"));
  ASSERT_EQ(2u, gst_caps_get_size(x));
  EXPECT_STREQ("video/x-raw", gst_structure_get_name(gst_caps_get_structure(x, 0)));
  gst_caps_unref(x);
}

TEST_F(UploadCapsTest, FilterIsIntersectedFirst) {
  GstCaps* x =
      Transform(GST_PAD_SRC, "video/x-raw,format=GRAY8,width=1280,height=720,framerate=25/1",
                "video/x-bayer,format=grbg;video/x-raw");
  ASSERT_EQ(2u, gst_caps_get_size(x));
  EXPECT_STREQ("video/x-bayer", gst_structure_get_name(gst_caps_get_structure(x, 0)));
  EXPECT_STREQ("grbg", gst_structure_get_string(gst_caps_get_structure(x, 0), "format"));
  gst_caps_unref(x);
}

// Runs in a fresh child process: a pipeline forced onto CUDA fails to start with one clear
// error message on the bus, and nothing crashes.
[[noreturn]] void StartPipelineForcedOntoCuda() {
  setenv("QV_DEVICE", "cuda", 1);
  GstElement* pxPipeline = gst_parse_launch(
      "videotestsrc num-buffers=1 ! video/x-raw,format=GRAY8,width=8,height=8 ! qvcudaupload ! "
      "fakesink",
      NULL);
  const GstStateChangeReturn eResult = gst_element_set_state(pxPipeline, GST_STATE_PAUSED);
  GstBus* pxBus = gst_element_get_bus(pxPipeline);
  GstMessage* pxMsg = gst_bus_timed_pop_filtered(pxBus, GST_SECOND, GST_MESSAGE_ERROR);
  if (pxMsg) {
    GError* pxError = NULL;
    gst_message_parse_error(pxMsg, &pxError, NULL);
    std::fprintf(stderr, "%s\n", pxError->message);
    g_error_free(pxError);
  }
  std::exit(eResult == GST_STATE_CHANGE_FAILURE && pxMsg ? 3 : 0);
}

TEST(UploadBackend, ForcingCudaWithoutGpuFailsToStartWithOneClearError) {
  // The backend is chosen once per process: decide without choosing it here, since the child
  // process runs this body again before the statement.
  if (access("/dev/nvidiactl", F_OK) == 0) GTEST_SKIP() << "this machine has a GPU";
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(StartPipelineForcedOntoCuda(), ::testing::ExitedWithCode(3),
              "QV_DEVICE=cuda was requested but no usable CUDA device was found");
}

}  // namespace
