// The mixer in real pipelines of ordinary sources, one buffer per interval on each branch, as
// cameras deliver them: the bytes of every wall tile, the selector's choice, flushing seeks that
// must never stall, and pools that go when no mixer uses them.
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "GstTestUtil.h"

namespace {

// iCameras appsrc branches of GRAY8 1280x1338 at 25/1 through the upload into the mixer.
std::string RigLaunch(const char* szType, int iCameras) {
  std::string s = std::string("qvcudamix name=m type=") + szType + " ! appsink name=out sync=false";
  for (int i = 0; i < iCameras; ++i)
    s += " appsrc name=cam" + std::to_string(i) +
         " format=time caps=video/x-raw,format=GRAY8,width=1280,height=1338,framerate=25/1 ! "
         "qvcudaupload ! m.sink_" +
         std::to_string(i);
  return s;
}

const uint8_t kValues[] = {20, 60, 100, 140, 180, 220, 250};

// Counts output pixels unlike the value of their camera: in every wall tile, or in the whole
// frame of camera 2, the selector's choice.
size_t WrongPixels(GstSample* pxSample, bool bWall, int iCameras) {
  const Qv::CQvImage xOut = QvTest::DownloadBufferImage(gst_sample_get_buffer(pxSample));
  const size_t uW = bWall ? 3840 : 1280, uH = bWall ? 2676 : 1338;
  if (xOut.GetFormat().GetImageBytes() != uW * uH) return SIZE_MAX;
  const auto* p = static_cast<const uint8_t*>(xOut.GetDataPtr());
  size_t uWrong = 0;
  for (size_t y = 0; y < uH; ++y)
    for (size_t x = 0; x < uW; ++x) {
      const size_t t = bWall ? y / 1338 * 3 + x / 1280 : 2;
      uWrong += t < size_t(iCameras) && p[y * uW + x] != kValues[t];
    }
  return uWrong;
}

TEST(MixPipeline, WallHoldsEveryCamerasTileAndTheSelectorItsCameraInEveryFrame) {
  for (auto [szType, iCameras] : {std::pair{"videowall", 6}, {"videowall", 7}, {"selector", 3}}) {
    SCOPED_TRACE(std::string(szType) + ", " + std::to_string(iCameras) + " cameras");
    const bool bWall = szType[0] == 'v';
    testing::internal::CaptureStdout();
    QvTest::CPipeline x(RigLaunch(szType, iCameras));
    gst_element_send_event(
        x.Element("m"),
        gst_event_new_custom(GST_EVENT_CUSTOM_UPSTREAM,
                             gst_structure_new("eventStruct", "camID", G_TYPE_INT, 2, NULL)));
    for (int i = 0; i < iCameras; ++i) {
      GstAppSrc* pxSrc = GST_APP_SRC(x.Element(("cam" + std::to_string(i)).c_str()));
      for (int f = 0; f < 3; ++f) {
        GstBuffer* px = QvTest::BufferFromBytes(std::vector<uint8_t>(1280 * 1338, kValues[i]));
        GST_BUFFER_PTS(px) = f * 40 * GST_MSECOND;
        GST_BUFFER_DURATION(px) = 40 * GST_MSECOND;
        gst_app_src_push_buffer(pxSrc, px);
      }
      gst_app_src_end_of_stream(pxSrc);
    }
    GstAppSink* pxSink = GST_APP_SINK(x.Element("out"));
    for (int f = 0; f < 3; ++f) {
      GstSample* pxSample = gst_app_sink_try_pull_sample(pxSink, 10 * GST_SECOND);
      ASSERT_NE(nullptr, pxSample) << "frame " << f;
      EXPECT_EQ(0u, WrongPixels(pxSample, bWall, iCameras)) << "frame " << f;
      gst_sample_unref(pxSample);
    }
    const std::vector<std::string> xSeventh = {
        "warning: The video wall has six tiles; the images of sink_6 and later pads are left out."};
    EXPECT_EQ(iCameras == 7 ? xSeventh : std::vector<std::string>{}, x.RunToEnd());
    testing::internal::GetCapturedStdout();
  }
}

TEST(MixPipeline, FlushingSeeksNeverStall) {
  // Live test sources keep both modes busy while the application seeks; each seek must come
  // back within seconds, however the threads interleave.
  for (const char* szType : {"selector", "videowall"}) {
    SCOPED_TRACE(szType);
    testing::internal::CaptureStdout();
    std::string s = std::string("qvcudamix name=m type=") + szType + " ! fakesink sync=false";
    for (int i = 0; i < 2; ++i)
      s += " videotestsrc pattern=" + std::to_string(i) +
           " ! video/x-raw,format=GRAY8,width=1280,height=1338,framerate=25/1 ! qvcudaupload ! "
           "m.sink_" +
           std::to_string(i);
    QvTest::CPipeline x(s);
    GstElement* pxPipeline = x.Get();
    ASSERT_EQ(GST_STATE_CHANGE_SUCCESS,
              gst_element_get_state(pxPipeline, NULL, NULL, 10 * GST_SECOND));
    int iDone = 0;
    for (; iDone < 200; ++iDone) {
      auto xSeek = std::async(std::launch::async, [pxPipeline] {
        return gst_element_seek_simple(pxPipeline, GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, 0);
      });
      if (xSeek.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
        ADD_FAILURE() << "seek " << iDone << " stalled";
        std::_Exit(1);  // the threads are stuck: tearing down would hang too
      }
      EXPECT_TRUE(xSeek.get());
    }
    EXPECT_EQ(200, iDone);
    testing::internal::GetCapturedStdout();
  }
}

// Heap bytes in use, in MiB (freed memory that malloc keeps for later doesn't count).
long InUseMiB() {
  const struct mallinfo2 x = mallinfo2();
  return static_cast<long>((x.uordblks + x.hblkhd) >> 20);
}

TEST(MixPipeline, PoolsOfSizesNoMixerUsesAreReleased) {
  // Forty output sizes one after the other, a camera frame too small for the selector to pick:
  // each pass takes a pool buffer of the size. Kept pools would hold 40 x 2 buffers.
  testing::internal::CaptureStdout();
  const long lBefore = InUseMiB();
  for (int i = 0; i < 40; ++i) {
    const std::string s =
        "videotestsrc num-buffers=2 ! video/x-raw,format=RGBA,width=" + std::to_string(1920 + i) +
        ",height=1080,framerate=25/1 ! qvcudamix name=m ! fakesink";
    QvTest::CPipeline x(s, GST_STATE_READY);
    gst_element_send_event(
        x.Element("m"),
        gst_event_new_custom(GST_EVENT_CUSTOM_UPSTREAM,
                             gst_structure_new("eventStruct", "camID", G_TYPE_INT, 5, NULL)));
    gst_element_set_state(x.Get(), GST_STATE_PLAYING);
    EXPECT_EQ(std::vector<std::string>{}, x.RunToEnd());
  }
  testing::internal::GetCapturedStdout();
  // Each pool of 8 MB frames that stayed would hold 16 MB.
  EXPECT_LT(InUseMiB() - lBefore, 100);
}

}  // namespace
