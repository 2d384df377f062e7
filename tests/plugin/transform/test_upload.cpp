// The upload element: row strides of every input layout, what it carries across, its caps, and
// how it fails.
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/base/gstbasetransform.h>
#include <gst/check/gstharness.h>
#include <gst/video/video.h>
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

struct SLayout {
  const char* szCaps;
  int iWidth, iHeight;
  size_t uStride;  // of the bytes pushed
  bool bVideoMeta;
};

// A frame whose row r holds r * 16 + column (mod 251), rows uStride bytes apart and the padding
// 0xEE; the packed rows are what the device image must hold.
GstBuffer* StridedFrame(const SLayout& x, std::vector<uint8_t>& xPacked) {
  std::vector<uint8_t> xBytes(x.uStride * x.iHeight, 0xEE);
  xPacked.clear();
  for (int r = 0; r < x.iHeight; ++r)
    for (int c = 0; c < x.iWidth; ++c) {
      const uint8_t v = static_cast<uint8_t>((r * 16 + c) % 251);
      xBytes[r * x.uStride + c] = v;
      xPacked.push_back(v);
    }
  GstBuffer* pxBuffer = QvTest::BufferFromBytes(xBytes);
  if (x.bVideoMeta) {
    gsize uOffset[GST_VIDEO_MAX_PLANES] = {0};
    gint iStride[GST_VIDEO_MAX_PLANES] = {static_cast<gint>(x.uStride)};
    gst_buffer_add_video_meta_full(pxBuffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_FORMAT_GRAY8,
                                   x.iWidth, x.iHeight, 1, uOffset, iStride);
  }
  return pxBuffer;
}

TEST(Upload, EveryRowLayoutBecomesPackedBayerGR) {
  const SLayout xTable[] = {
      {"video/x-raw,format=GRAY8,width=8,height=3", 8, 3, 8, false},
      {"video/x-raw,format=GRAY8,width=7,height=5", 7, 5, 8, false},      // rows padded to 4
      {"video/x-raw,format=GRAY8,width=7,height=5", 7, 5, 12, true},      // the meta's stride
      {"video/x-bayer,format=grbg,width=13,height=3", 13, 3, 13, false},  // packed
      {"video/x-bayer,format=grbg,width=13,height=3", 13, 3, 16, false},  // padded to 4
      {"video/x-bayer,format=grbg,width=641,height=2", 641, 2, 644, false},
  };
  for (const SLayout& x : xTable) {
    SCOPED_TRACE(std::string(x.szCaps) + " stride " + std::to_string(x.uStride));
    auto h = QvTest::Harness("qvcudaupload", (std::string(x.szCaps) + ",framerate=30/1").c_str());
    std::vector<uint8_t> xPacked;
    g_autoptr(GstBuffer) pxOut = gst_harness_push_and_pull(h.get(), StridedFrame(x, xPacked));
    ASSERT_NE(nullptr, pxOut);
    const CQvImage xImage = QvTest::DownloadBufferImage(pxOut);
    EXPECT_EQ(CQvImageFormat(x.iWidth, x.iHeight, EPixelType::BayerGR, EDataType::UByte),
              xImage.GetFormat());
    ASSERT_EQ(xPacked.size(), xImage.GetFormat().GetImageBytes());
    EXPECT_EQ(0, std::memcmp(xPacked.data(), xImage.GetDataPtr(), xPacked.size()));
  }
}

TEST(Upload, OddWidthFromARealSourceKeepsAFlatFrameFlat) {
  QvTest::CPipeline x(
      "videotestsrc pattern=white num-buffers=1 ! video/x-raw,format=GRAY8,width=641,height=481 ! "
      "qvcudaupload ! appsink name=out sync=false");
  GstSample* pxSample =
      gst_app_sink_try_pull_sample(GST_APP_SINK(x.Element("out")), 10 * GST_SECOND);
  ASSERT_NE(nullptr, pxSample);
  const CQvImage xImage = QvTest::DownloadBufferImage(gst_sample_get_buffer(pxSample));
  ASSERT_EQ(641u * 481u, xImage.GetFormat().GetImageBytes());
  const auto* p = static_cast<const uint8_t*>(xImage.GetDataPtr());
  size_t uOff = 0;
  for (size_t i = 0; i < 641u * 481u; ++i) uOff += p[i] != p[0];
  EXPECT_GT(p[0], 200);  // white, in videotestsrc's range
  EXPECT_EQ(0u, uOff) << "pixels unlike the first";
  gst_sample_unref(pxSample);
}

TEST(Upload, CarriesTimestampsAndCameraMeta) {
  auto h =
      QvTest::Harness("qvcudaupload", "video/x-raw,format=GRAY8,width=4,height=2,framerate=30/1");
  GstBuffer* pxIn = QvTest::WithMeta(QvTest::BufferFromBytes(QvTest::FrameBytes(8, 3)),
                                     40 * GST_MSECOND, 0.0125f, 3.0f);
  g_autoptr(GstBuffer) pxOut = gst_harness_push_and_pull(h.get(), pxIn);
  ASSERT_NE(nullptr, pxOut);
  QvTest::ExpectMeta(pxOut, 40 * GST_MSECOND, 0.0125f, 3.0f);
}

TEST(Upload, ShortBuffersAndRowsFailTheFrameWithTheirSizes) {
  struct {
    const char* szCaps;
    size_t uBytes;
    const char* szMessage;
    gint iMetaStride = 0;
  } const xTable[] = {
      {"video/x-raw,format=GRAY8,width=16,height=8", 100,
       "in buffer holds 100 bytes, a 16x8 frame needs 128"},
      // GRAY8 rows of 7 bytes lie 8 apart; the last needs no padding.
      {"video/x-raw,format=GRAY8,width=7,height=5", 35,
       "in buffer holds 35 bytes, a 7x5 frame needs 39"},
      // 2^31-1 squared wraps 32 bits: the frame must fail as too short, not pass.
      {"video/x-bayer,format=grbg,width=2147483647,height=2147483647", 64,
       "frame needs 4611686014132420609"},
      {"video/x-raw,format=GRAY8,width=64,height=48", 3072,
       "a row stride of 10 bytes is shorter than a row of 64 bytes", 10},
  };
  for (const auto& x : xTable) {
    SCOPED_TRACE(x.szCaps);
    auto h = QvTest::Harness("qvcudaupload", (std::string(x.szCaps) + ",framerate=30/1").c_str());
    GstBuffer* pxIn = QvTest::BufferFromBytes(QvTest::FrameBytes(x.uBytes, 5));
    if (x.iMetaStride)  // a video meta with a stride of its own
      gst_buffer_add_video_meta(pxIn, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_FORMAT_GRAY8, 64, 48)
          ->stride[0] = x.iMetaStride;
    const std::string sOut = QvTest::PushCaptured(h.get(), pxIn, GST_FLOW_ERROR);
    EXPECT_NE(std::string::npos, sOut.find("exception catched: "));
    EXPECT_NE(std::string::npos, sOut.find(x.szMessage)) << sOut;
  }
}

TEST(Upload, AnotherBayerOrderIsReadAsGrbgWithOneWarning) {
  QvTest::CPipeline x(
      "appsrc name=in caps=video/x-bayer,format=rggb,width=4,height=2,framerate=30/1 ! "
      "qvcudaupload ! fakesink");
  GstAppSrc* pxSrc = GST_APP_SRC(x.Element("in"));
  for (int i = 0; i < 3; ++i)
    gst_app_src_push_buffer(pxSrc, QvTest::BufferFromBytes(QvTest::FrameBytes(8, i)));
  gst_app_src_end_of_stream(pxSrc);
  EXPECT_EQ(std::vector<std::string>{"warning: the mosaic is read as GRBG; the caps say rggb"},
            x.RunToEnd());
}

// Runs in a fresh child process: a pipeline forced onto CUDA fails to start with one clear
// error message on the bus, and nothing crashes.
[[noreturn]] void StartPipelineForcedOntoCuda() {
  setenv("QV_DEVICE", "cuda", 1);
  QvTest::CPipeline x(
      "videotestsrc num-buffers=1 ! video/x-raw,format=GRAY8,width=8,height=8 ! qvcudaupload ! "
      "fakesink",
      GST_STATE_NULL);
  const bool bFailed = gst_element_set_state(x.Get(), GST_STATE_PAUSED) == GST_STATE_CHANGE_FAILURE;
  const std::vector<std::string> xTexts = x.RunToEnd(GST_SECOND);
  for (const std::string& s : xTexts) std::fprintf(stderr, "%s\n", s.c_str());
  std::exit(bFailed && xTexts.size() == 1 && xTexts[0].rfind("error: ", 0) == 0 ? 3 : 0);
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
