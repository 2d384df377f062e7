// The exposure control: the camera's conversions against a fake V4L2 driver, and the element
// alone, in a pipeline, and as a rig of six.
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/check/gstharness.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <thread>

#include "GstTestUtil.h"
#include "H5Camera.h"
#include "QvException.h"
#include "QvMessage.h"
#include "adapt/gstqvAutoAdapt.h"
#include "gstqvHostElements.h"
#include "plugin.h"

using namespace Qv;
using std::filesystem::directory_iterator;

namespace {

const float kLine = 4320.0f / 317400000.0f;  // the sensor's line time
const uint32_t kExposureId = 0x9A2001;

// A driver of /dev/video0 to /dev/video6 (file 100 + n): controls, ranges, and the writes.
struct SFakeCam {
  int32_t iExposure = 100, iExpMin = 0, iExpMax = 1470, iGain = 104, iGainMin = 52, iGainMax = 832;
};
struct SWrite {
  int iCamera;
  uint32_t uId;
  int32_t iValue;
};
std::mutex g_xLock;
SFakeCam g_axCams[7];
std::vector<SWrite> g_xWrites;

int FakeOpen(const char* szPath, int) {
  const bool bKnown = std::strlen(szPath) == 11 && szPath[10] >= '0' && szPath[10] < '7';
  return bKnown ? 100 + szPath[10] - '0' : (errno = ENOENT, -1);
}
int FakeIoctl(int iFile, unsigned long uRequest, void* pArg) {
  std::lock_guard<std::mutex> xGuard(g_xLock);
  if (iFile < 100 || iFile > 106) return errno = EBADF, -1;
  SFakeCam& c = g_axCams[iFile - 100];
  auto* x = static_cast<v4l2_control*>(pArg);
  const bool bExposure = x->id == kExposureId;
  if (uRequest == VIDIOC_QUERYCTRL) {
    static_cast<v4l2_queryctrl*>(pArg)->minimum = bExposure ? c.iExpMin : c.iGainMin;
    static_cast<v4l2_queryctrl*>(pArg)->maximum = bExposure ? c.iExpMax : c.iGainMax;
  } else if (uRequest == VIDIOC_G_CTRL) {
    x->value = bExposure ? c.iExposure : c.iGain;
  } else {
    g_xWrites.push_back({iFile - 100, x->id, (bExposure ? c.iExposure : c.iGain) = x->value});
  }
  return 0;
}
const SH5CameraSystem g_xFake = {FakeOpen, [](int) { return 0; }, FakeIoctl};

class AutoAdaptTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(qv_register_host_elements());
    CH5Camera::SetSystem(&g_xFake);
    for (SFakeCam& x : g_axCams) x = SFakeCam();
    g_xWrites.clear();
    SAutoAdaptStatus x;
    while (QvAutoAdaptPopReport(x)) continue;
  }
};

#define CAPS "video/x-bayer,format=grbg,width=8,height=8,framerate=30/1"

GstHarness* Adapt(const std::string& sDevice, int iUpdate, bool bMaster, bool bAuto = true) {
  GstHarness* h = gst_harness_new("qvautoadapt");
  g_object_set(h->element, "device", sDevice.c_str(), "update", iUpdate, "master", bMaster,
               "autoexp", bAuto, "autogain", bAuto, NULL);
  gst_harness_set_src_caps_str(h, CAPS);
  return h;
}

// An 8x8 frame of one value, held here too where bHeld; gives the meta it came out with.
GstFlowReturn Push(GstHarness* h, uint8_t uValue, MyMetaInfo* pxMeta = nullptr,
                   bool bHeld = false) {
  GstBuffer* pxIn = QvTest::BufferFromBytes(std::vector<uint8_t>(64, uValue));
  const GstFlowReturn eFlow = gst_harness_push(h, bHeld ? gst_buffer_ref(pxIn) : pxIn);
  if (eFlow != GST_FLOW_OK) return eFlow;
  GstBuffer* pxOut = gst_harness_pull(h);
  auto* pxGot = reinterpret_cast<MyMetaInfo*>(gst_buffer_get_meta(pxOut, MY_META_INFO_API_TYPE));
  if (pxMeta) *pxMeta = pxGot ? *pxGot : MyMetaInfo{{}, 0, -1};
  gst_buffer_unref(pxOut);
  if (bHeld) gst_buffer_unref(pxIn);
  return eFlow;
}

TEST_F(AutoAdaptTest, CameraConvertsControlsFailsOnEveryFrameAndClosesItsFile) {
  g_axCams[1] = {0, 10, 0, 103, 52, 1040};
  CH5Camera xCam("/dev/video1");
  float a = 0, b = 0, c = 0, d = 0;
  xCam.GetProperty(CamExposure, a);
  EXPECT_NEAR(13.61e-6, a, 0.01e-6);  // 0 lines read as one
  xCam.GetProperty(CamGain, b);
  EXPECT_EQ(1.0f, b);  // 103 / 52
  xCam.GetPropertyRange(CamExposure, c, d);
  EXPECT_EQ(kLine * 11, c);  // one line above the minimum
  xCam.SetProperty(CamGain, 1.0f);
  xCam.SetProperty(CamExposure, 0.01f);
  EXPECT_EQ(52, g_axCams[1].iGain);
  EXPECT_EQ(734, g_axCams[1].iExposure);

  CH5Camera::SetSystem(nullptr);  // the C library's calls
  try {
    CH5Camera("/nonexistent/video0").GetPropertyRange(CamGain, c, d);
    ADD_FAILURE() << "no failure";
  } catch (const CQvException& e) {
    EXPECT_STREQ("ioctl failed with error 9", e.GetMessageText());
  }
  // The element says so on every frame. It holds one file, of its present device, and closes it
  // when finalized.
  const auto OpenFiles = [] { return std::distance(directory_iterator("/proc/self/fd"), {}); };
  const auto iBefore = OpenFiles();
  for (int i = 0; i < 50; ++i) {
    GstHarness* h = Adapt("/dev/null", 1, false);
    for (const char* szDevice : {"/dev/null", "/dev/zero"}) {
      g_object_set(h->element, "device", szDevice, NULL);
      Qv::CMessageCapture xMessages;
      EXPECT_EQ(GST_FLOW_ERROR, Push(h, 0));
      EXPECT_NE(std::string::npos, xMessages.Text().find("  :   ioctl failed with error 25\n"));
    }
    EXPECT_EQ(iBefore + 1, OpenFiles()) << i;
    gst_harness_teardown(h);
  }
  EXPECT_EQ(iBefore, OpenFiles());
}

TEST_F(AutoAdaptTest, WithoutControllerTheLatest64ReportsWaitMeasuredAtTheRowStride) {
  GstHarness* h = Adapt("/dev/video4", 1, true);
  g_object_set(h->element, "samples", 1, NULL);
  for (int i = 1; i <= 70; ++i) ASSERT_EQ(GST_FLOW_OK, Push(h, static_cast<uint8_t>(i)));
  SAutoAdaptStatus x;
  for (int i = 7; i <= 70; ++i) {
    ASSERT_TRUE(QvAutoAdaptPopReport(x)) << i;
    EXPECT_NEAR(i / 255.0f, x.fBrightness, 1e-6) << i;
  }
  EXPECT_FALSE(QvAutoAdaptPopReport(x));
  EXPECT_TRUE(g_xWrites.empty());  // a reporting camera is never written by its own element
  // A 5x3 frame of 51 whose row padding to 4 bytes holds 255: the measure reads the pixels alone.
  for (const char* szCaps : {"video/x-raw,format=GRAY8", "video/x-bayer,format=grbg"}) {
    gst_harness_set_src_caps_str(h, (szCaps + std::string(",width=5,height=3")).c_str());
    std::vector<uint8_t> xBytes(24, 255);
    for (int i = 0; i < 15; ++i) xBytes[i / 5 * 8 + i % 5] = 51;
    gst_buffer_unref(gst_harness_push_and_pull(h, QvTest::BufferFromBytes(xBytes)));
    ASSERT_TRUE(QvAutoAdaptPopReport(x));
    EXPECT_FLOAT_EQ(51 / 255.0f, x.fBrightness) << szCaps;
  }
  gst_harness_teardown(h);
}

std::vector<GstHarness*> Rig(int iCameras) {
  std::vector<GstHarness*> x;
  for (int k = 0; k < iCameras; ++k) x.push_back(Adapt("/dev/video" + std::to_string(k), 1, true));
  return x;
}

TEST_F(AutoAdaptTest, SixCamerasOnSixThreadsAreSetJointlyInKeyOrder) {
  const uint8_t auValue[6] = {255, 255, 0, 0, 0, 0};  // brightness 2, 2 and four times 0.0001
  std::vector<GstHarness*> xRig = Rig(6);
  std::vector<std::thread> xThreads;
  for (int k = 0; k < 6; ++k)
    xThreads.emplace_back([&, k] {
      for (int i = 0; i < 5; ++i) EXPECT_EQ(GST_FLOW_OK, Push(xRig[k], auValue[k]));
    });
  for (std::thread& t : xThreads) t.join();
  Push(xRig[0], 255);  // every report is in: the controller steps now if it did not yet
  // The first step, in key order, from the controller's 100 lines at gain 2: gain 1 suffices.
  const float fMean = (2.0f + 2.0f + 0.0001f + 0.0001f + 0.0001f + 0.0001f) / 6.0f;
  const double dProduct = static_cast<double>(kLine * 100 * 2.0f) *
                          std::fma(static_cast<double>(0.4f / fMean) - 1.0, 0.5, 1.0);
  const int32_t iLines = static_cast<int32_t>(static_cast<float>(dProduct) / kLine);
  ASSERT_GE(g_xWrites.size(), 12u);
  for (size_t i = 0; i < 12; ++i) {
    EXPECT_EQ(static_cast<int>(i / 2), g_xWrites[i].iCamera) << i;
    EXPECT_EQ(i % 2 ? kExposureId : 0x9A200Au, g_xWrites[i].uId) << i;
    EXPECT_EQ(i % 2 ? iLines : 52, g_xWrites[i].iValue) << i;
  }
  g_axCams[0].iGain = 520;  // back on its own camera after the step
  MyMetaInfo m;
  Push(xRig[0], 255, &m);
  EXPECT_EQ(10.0f, m.gain);
  Push(xRig[0], 255, &m, true);  // a buffer held elsewhere too goes on without a meta
  EXPECT_EQ(-1.0f, m.gain);
  for (GstHarness* h : xRig) gst_harness_teardown(h);
}

TEST_F(AutoAdaptTest, ASeventhDeviceStopsTheJointStepForGood) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the spoilt map lives as long as the process
  EXPECT_EXIT(
      {
        std::vector<GstHarness*> xRig = Rig(7);
        for (int k : {1, 2, 3, 4, 5, 0, 6}) Push(xRig[k], 0);  // five in, then the seventh
        for (int i = 0; i < 5; ++i)
          for (GstHarness* h : xRig) Push(h, 0);
        std::exit(g_xWrites.empty() ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

// Frames one at a time through a real pipeline: bytes unchanged, every frame stamped with the
// values read before its own adaption, two writes at every update-th frame.
struct SAdaptRow {
  const char* szProperties;
  int iUpdate, iFrames;
};
class AutoAdaptRows : public AutoAdaptTest, public testing::WithParamInterface<SAdaptRow> {};
INSTANTIATE_TEST_SUITE_P(Rows, AutoAdaptRows,
                         testing::Values(SAdaptRow{"update=1", 1, 3},
                                         SAdaptRow{"update=1000", 1000, 1000},
                                         SAdaptRow{"update=2 autoexp=0 autogain=0", 2, 4}));

TEST_P(AutoAdaptRows, PipelineMeasuresEveryUpdateFramesAndPassesTheBytesWithTheMeta) {
  const SAdaptRow& r = GetParam();
  g_axCams[2] = SFakeCam();
  g_xWrites.clear();
  const std::string sLaunch = std::string("appsrc name=src format=time caps=\"" CAPS
                                          "\" ! qvautoadapt device=/dev/video2 ") +
                              r.szProperties + " ! appsink name=sink sync=false";
  QvTest::CPipeline xPipeline(sLaunch);
  GstElement *pxSrc = xPipeline.Element("src"), *pxSink = xPipeline.Element("sink");
  for (int i = 1; i <= r.iFrames; ++i) {
    const std::vector<uint8_t> xBytes = QvTest::FrameBytes(64, i);
    const SFakeCam x = g_axCams[2];
    SCOPED_TRACE(std::string(r.szProperties) + " frame " + std::to_string(i));
    ASSERT_EQ(GST_FLOW_OK,
              gst_app_src_push_buffer(GST_APP_SRC(pxSrc), QvTest::BufferFromBytes(xBytes)));
    GstSample* pxSample = gst_app_sink_pull_sample(GST_APP_SINK(pxSink));
    GstBuffer* pxOut = gst_sample_get_buffer(pxSample);
    ASSERT_EQ(0, gst_buffer_memcmp(pxOut, 0, xBytes.data(), xBytes.size()));
    auto* m = reinterpret_cast<MyMetaInfo*>(gst_buffer_get_meta(pxOut, MY_META_INFO_API_TYPE));
    ASSERT_TRUE(m && kLine * x.iExposure == m->exposure && float(x.iGain / 52) == m->gain);
    ASSERT_EQ(2u * (i / r.iUpdate), g_xWrites.size());
    gst_sample_unref(pxSample);
  }
  for (const SWrite& w : g_xWrites)  // without flags, what was read goes back
    EXPECT_TRUE(r.iUpdate != 2 || w.iValue == (w.uId == kExposureId ? 100 : 104));
}

}  // namespace
