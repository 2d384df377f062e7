// The exposure control: its law on hand-made frames, the camera's conversions against a fake
// V4L2 device, and the element alone, in a pipeline, and as a rig of six.
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/check/gstharness.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "AutoAdapt.h"
#include "GstTestUtil.h"
#include "H5Camera.h"
#include "QvException.h"
#include "QvImage.h"
#include "gstqvAutoAdapt.h"
#include "gstqvHostElements.h"
#include "plugin.h"

using namespace Qv;

namespace {

const float kLine = 4320.0f / 317400000.0f;  // the sensor's line time
const uint32_t kExposureId = 0x9A2001;

// A V4L2 driver of a few cameras by path: controls, their ranges, and a log of the writes.
struct SFakeCam {
  int32_t iExposure = 100, iGain = 104, iExpMin = 0, iExpMax = 1470, iGainMin = 52, iGainMax = 832;
};
struct SWrite {
  std::string sPath;
  uint32_t uId;
  int32_t iValue;
};
std::mutex g_xLock;
std::map<std::string, SFakeCam> g_xCams;
std::map<int, std::string> g_xFiles;
std::vector<SWrite> g_xWrites;
int g_iNextFile = 100;

int FakeOpen(const char* szPath, int) {
  std::lock_guard<std::mutex> xGuard(g_xLock);
  if (!g_xCams.count(szPath)) return errno = ENOENT, -1;
  g_xFiles[g_iNextFile] = szPath;
  return g_iNextFile++;
}
int FakeClose(int iFile) {
  std::lock_guard<std::mutex> xGuard(g_xLock);
  return g_xFiles.erase(iFile) ? 0 : (errno = EBADF, -1);
}
int FakeIoctl(int iFile, unsigned long uRequest, void* pArg) {
  std::lock_guard<std::mutex> xGuard(g_xLock);
  if (!g_xFiles.count(iFile)) return errno = EBADF, -1;
  SFakeCam& c = g_xCams[g_xFiles[iFile]];
  if (uRequest == VIDIOC_QUERYCTRL) {
    auto* q = static_cast<v4l2_queryctrl*>(pArg);
    q->minimum = q->id == kExposureId ? c.iExpMin : c.iGainMin;
    q->maximum = q->id == kExposureId ? c.iExpMax : c.iGainMax;
    return 0;
  }
  auto* x = static_cast<v4l2_control*>(pArg);
  int32_t& iValue = x->id == kExposureId ? c.iExposure : c.iGain;
  if (uRequest == VIDIOC_G_CTRL) x->value = iValue;
  if (uRequest != VIDIOC_S_CTRL) return 0;
  iValue = x->value;
  g_xWrites.push_back({g_xFiles[iFile], x->id, x->value});
  return 0;
}
const SH5CameraSystem g_xFake = {FakeOpen, FakeClose, FakeIoctl};

class AutoAdaptTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(qv_register_host_elements());
    CH5Camera::SetSystem(&g_xFake);
    g_xCams.clear();
    for (int i = 0; i < 7; ++i) g_xCams["/dev/video" + std::to_string(i)] = SFakeCam();
    g_xWrites.clear();
    SAutoAdaptStatus x;
    while (QvAutoAdaptPopReport(x)) {
    }
  }
  void TearDown() override { CH5Camera::SetSystem(nullptr); }
};

CQvImage Frame(int w, int h, EPixelType::ID ePixel, EDataType::ID eData, uint8_t uFill) {
  CQvImage x(CQvImageFormat(w, h, ePixel, eData));
  std::memset(x.GetDataPtr(), uFill, x.GetImageBytes());
  return x;
}

TEST(AutoAdaptLaw, BrightnessOfHandMadeFrames) {
  CQvImage xEdge = Frame(5, 3, EPixelType::BayerRG, EDataType::UByte, 0);
  auto* p = static_cast<uint8_t*>(xEdge.GetDataPtr());
  p[8] = 51, p[9] = 102, p[13] = 153, p[14] = 204;  // the 2x2 block at the bottom right
  CQvImage xCorner = Frame(4, 4, EPixelType::Lum, EDataType::UByte, 0);
  auto* q = static_cast<uint8_t*>(xCorner.GetDataPtr());
  q[0] = q[1] = q[4] = q[5] = 255;
  struct {
    const char* szName;
    CQvImage xImage;
    int iSamples;
    float fRoi1, fPenalty;
    float fWant;
    const char* szError;
  } axRows[] = {
      {"black frame", Frame(64, 48, EPixelType::BayerGR, EDataType::UByte, 0), 50, 0, 1, 0.0001f,
       nullptr},
      {"253: all overexposed", Frame(64, 48, EPixelType::Lum, EDataType::UByte, 253), 50, 0, 1,
       2 * 253 / 255.0f, nullptr},
      {"252: none overexposed", Frame(64, 48, EPixelType::Lum, EDataType::UByte, 252), 50, 0, 1,
       252 / 255.0f, nullptr},
      {"16 bit", Frame(8, 8, EPixelType::BayerBG, EDataType::UShort, 0x80), 4, 0, 1,
       0x8080 / 65535.0f, nullptr},
      // Starts at the last column and row: the block moves back inside, all four read once.
      {"edge patch", std::move(xEdge), 1, 1, 0, (51 + 102 + 153 + 204) / 1020.0f, nullptr},
      // 4 pixels for 5 samples: the step is 0, every sample is the corner block.
      {"step 0", std::move(xCorner), 5, 0, 1, 2.0f, nullptr},
      {"RGBA", Frame(4, 4, EPixelType::RGBA, EDataType::UByte, 0), 2, 0, 1, 0,
       "Invalid pixel type"},
      {"float", Frame(4, 4, EPixelType::Lum, EDataType::Float, 0), 2, 0, 1, 0, "Invalid data type"},
  };
  for (auto& r : axRows) {
    SAutoAdaptSettings xSettings;
    xSettings.iSamples = r.iSamples;
    xSettings.fRoiX1 = xSettings.fRoiY1 = r.fRoi1;
    xSettings.fPenalty = r.fPenalty;
    CAutoAdapt xAdapt(0.01f, 0.001f, 0.02f, 1, 1, 16, xSettings);
    try {
      // 2500 equal samples summed in single precision drift by up to about 2e-5.
      EXPECT_NEAR(r.fWant, xAdapt.GetAverageBrightness(&r.xImage), 5e-5) << r.szName;
      EXPECT_EQ(nullptr, r.szError) << r.szName;
    } catch (const CQvException& e) {
      EXPECT_STREQ(r.szError, e.GetMessageText()) << r.szName;
    }
  }
}

TEST(AutoAdaptLaw, ExposureAndGainFollowTheFlags) {
  const double dBlack = 2000.5;  // 1 + (0.4 / 0.0001 - 1) * 0.5
  struct {
    const char* szName;
    float fBrightness;
    bool bExp, bGain;
    float fExposure, fGain, fExposureMax;
    bool bChanged;
    float fWantGain, fWantExposure;
  } axRows[] = {
      {"upper band edge", 0.4f + 0.1f, true, true, 0.01f, 2, 0.02f, false, 2, 0.01f},
      {"lower band edge", 0.4f - 0.1f, true, true, 0.01f, 2, 0.02f, false, 2, 0.01f},
      {"worked example", 0.1f, true, true, 0.01f, 1, 0.01f, true, 3, 0.025f / 3},
      {"gain stays 1 below the longest exposure", 0.1f, true, true, 0.001f, 1, 0.01f, true, 1,
       0.0025f},
      {"no flag", 0.1f, false, false, 0.004f, 3, 0.01f, true, 3, 0.004f},
      {"exposure only", 0.1f, true, false, 0.004f, 3, 0.1f, true, 3, 0.004f * 2.5f},
      {"gain only", 0.1f, false, true, 0.004f, 3, 0.01f, true, 8, 0.004f},
      {"black: product 2000.5 times", 0.0001f, true, false, 0.01f, 1, 100, true, 1,
       static_cast<float>(static_cast<double>(0.01f) * dBlack)},
      {"black: exposure clipped", 0.0001f, true, false, 0.01f, 1, 0.02f, true, 1, 0.02f},
      {"black: gain clipped", 0.0001f, false, true, 0.01f, 1, 0.02f, true, 16, 0.01f},
  };
  for (const auto& r : axRows) {
    SAutoAdaptSettings xSettings;
    xSettings.bAutoExp = r.bExp;
    xSettings.bAutoGain = r.bGain;
    CAutoAdapt xAdapt(r.fExposure, 0.0001f, r.fExposureMax, r.fGain, 1, 16, xSettings);
    float fGain = r.fGain, fExposure = r.fExposure;
    EXPECT_EQ(r.bChanged, xAdapt.CalculateExposureGain(fGain, fExposure, r.fBrightness))
        << r.szName;
    xAdapt.ClipValues(fGain, fExposure);
    EXPECT_EQ(r.fWantGain, fGain) << r.szName;
    EXPECT_FLOAT_EQ(r.fWantExposure, fExposure) << r.szName;
  }
}

TEST_F(AutoAdaptTest, CameraConvertsControlsAndFailsOnABadFile) {
  g_xCams["/dev/video1"] = {0, 103, -1, 0, 52, 1040};
  g_xCams["/dev/video2"] = {0, 0, 10, 2000, 0, 0};
  CH5Camera xCam("/dev/video1");
  float a = 0, b = 0;
  xCam.GetProperty(CamExposure, a);
  EXPECT_EQ(kLine, a);  // 0 lines read as one
  EXPECT_NEAR(13.61e-6, a, 0.01e-6);
  xCam.GetProperty(CamGain, a);
  EXPECT_EQ(1.0f, a);  // 103 / 52
  xCam.GetPropertyRange(CamExposure, a, b);
  EXPECT_EQ(kLine, a);  // minimum -1 + 1 is 0: one line
  EXPECT_EQ(kLine, b);
  xCam.GetPropertyRange(CamGain, a, b);
  EXPECT_EQ(1.0f, a);
  EXPECT_EQ(20.0f, b);
  xCam.SetProperty(CamGain, 1.0f);
  xCam.SetProperty(CamExposure, 0.01f);
  xCam.SetDevice("/dev/video2");
  xCam.GetPropertyRange(CamExposure, a, b);
  EXPECT_EQ(kLine * 11, a);
  EXPECT_EQ(kLine * 2000, b);
  EXPECT_EQ(52, g_xCams["/dev/video1"].iGain);
  EXPECT_EQ(734, g_xCams["/dev/video1"].iExposure);

  CH5Camera::SetSystem(nullptr);  // the C library's calls on real files
  for (const char* szPath : {"/nonexistent/video0", "/dev/null"}) {
    CH5Camera xReal(szPath);
    const std::string sWant =
        std::string("ioctl failed with error ") + (szPath[1] == 'n' ? "9" : "25");
    for (int i = 0; i < 3; ++i) {
      try {
        if (i == 0) xReal.GetProperty(CamGain, a);
        if (i == 1) xReal.SetProperty(CamGain, a);
        if (i == 2) xReal.GetPropertyRange(CamGain, a, b);
        ADD_FAILURE() << szPath << " " << i;
      } catch (const CQvException& e) {
        EXPECT_EQ(sWant, e.GetMessageText()) << szPath << " " << i;
      }
    }
  }
}

TEST_F(AutoAdaptTest, PropertiesWithTheirIdsRangesAndStartValues) {
  GstElement* pxElement = gst_element_factory_make("qvautoadapt", NULL);
  ASSERT_NE(nullptr, pxElement);
  struct {
    const char* szName;
    guint uId;
    double dMin, dMax, dDefault, dInstance;
  } axRows[] = {{"autoexp", 2, 0, 1, 1, 1},
                {"autogain", 3, 0, 1, 1, 1},
                {"master", 5, 0, 1, 0, 0},
                {"roix1", 6, 0, 1, 0, 0},
                {"roix2", 7, 0, 1, 1, 1},
                {"roiy1", 8, 0, 1, 0, 0},
                {"roiy2", 9, 0, 1, 1, 1},
                {"target", 10, 0, 1, 0.4f, 0.4f},
                {"tolerance", 11, 0, 1, 0.1f, 0.1f},
                {"adaption", 12, 0, 0.5f, 0, 0.5f},
                {"penalty", 13, 0, 100, 1, 1},
                {"samples", 14, 1, 1000, 50, 50},
                {"update", 15, 1, 1000, 5, 5}};
  auto AsDouble = [](const GValue* v) {
    if (G_VALUE_HOLDS_BOOLEAN(v)) return g_value_get_boolean(v) ? 1.0 : 0.0;
    return G_VALUE_HOLDS_INT(v) ? g_value_get_int(v) : static_cast<double>(g_value_get_float(v));
  };
  for (const auto& r : axRows) {
    GParamSpec* p = g_object_class_find_property(G_OBJECT_GET_CLASS(pxElement), r.szName);
    ASSERT_NE(nullptr, p) << r.szName;
    EXPECT_EQ(r.uId, p->param_id) << r.szName;
    EXPECT_EQ(r.dDefault, AsDouble(g_param_spec_get_default_value(p))) << r.szName;
    GValue xValue = G_VALUE_INIT;
    g_value_init(&xValue, p->value_type);
    g_object_get_property(G_OBJECT(pxElement), r.szName, &xValue);
    EXPECT_EQ(r.dInstance, AsDouble(&xValue)) << r.szName;
    if (G_IS_PARAM_SPEC_FLOAT(p)) {
      EXPECT_EQ(r.dMin, G_PARAM_SPEC_FLOAT(p)->minimum) << r.szName;
      EXPECT_EQ(r.dMax, G_PARAM_SPEC_FLOAT(p)->maximum) << r.szName;
    } else if (G_IS_PARAM_SPEC_INT(p)) {
      EXPECT_EQ(r.dMin, G_PARAM_SPEC_INT(p)->minimum) << r.szName;
      EXPECT_EQ(r.dMax, G_PARAM_SPEC_INT(p)->maximum) << r.szName;
    }
  }
  gchar* szDevice = NULL;
  g_object_get(pxElement, "device", &szDevice, NULL);
  EXPECT_STREQ("/dev/video0", szDevice);
  g_free(szDevice);
  gst_object_unref(pxElement);
}

#define CAPS "video/x-bayer,format=grbg,width=8,height=8,framerate=30/1"

GstHarness* Adapt(const char* szDevice, int iUpdate, bool bMaster, bool bAuto = true) {
  GstHarness* h = gst_harness_new("qvautoadapt");
  g_object_set(h->element, "device", szDevice, "update", iUpdate, "master", bMaster, "autoexp",
               bAuto, "autogain", bAuto, NULL);
  gst_harness_set_src_caps_str(h, CAPS);
  return h;
}

// Pushes an 8x8 frame of one value; gives the meta it came out with (gain -1 where none).
GstFlowReturn Push(GstHarness* h, uint8_t uValue, MyMetaInfo* pxMeta = nullptr) {
  const GstFlowReturn eFlow =
      gst_harness_push(h, QvTest::BufferFromBytes(std::vector<uint8_t>(64, uValue)));
  if (eFlow != GST_FLOW_OK) return eFlow;
  GstBuffer* pxOut = gst_harness_pull(h);
  auto* pxGot = reinterpret_cast<MyMetaInfo*>(gst_buffer_get_meta(pxOut, MY_META_INFO_API_TYPE));
  if (pxMeta) *pxMeta = pxGot ? *pxGot : MyMetaInfo{{}, 0, -1};
  gst_buffer_unref(pxOut);
  return eFlow;
}

TEST_F(AutoAdaptTest, SingleCameraMeasuresEveryUpdateFramesAndStampsTheValuesRead) {
  struct {
    const char* szName;
    int iUpdate;
    bool bAuto;
    int iFrames;
    size_t uWrites;
  } axRows[] = {{"update 1", 1, true, 3, 6},
                {"update 1000, frame 999", 1000, true, 999, 0},
                {"update 1000, frame 1000", 1000, true, 1000, 2},
                {"no flags: the values read go back", 1, false, 2, 4}};
  for (const auto& r : axRows) {
    g_xCams["/dev/video1"] = SFakeCam();
    g_xWrites.clear();
    GstHarness* h = Adapt("/dev/video1", r.iUpdate, false, r.bAuto);
    for (int i = 0; i < r.iFrames; ++i) {
      const SFakeCam x = g_xCams["/dev/video1"];
      MyMetaInfo m;
      ASSERT_EQ(GST_FLOW_OK, Push(h, 0, &m)) << r.szName;
      ASSERT_EQ(kLine * std::max(1, x.iExposure), m.exposure) << r.szName << " " << i;
      ASSERT_EQ(static_cast<float>(x.iGain / 52), m.gain) << r.szName << " " << i;
    }
    EXPECT_EQ(r.uWrites, g_xWrites.size()) << r.szName;
    for (const SWrite& w : g_xWrites) {
      EXPECT_EQ("/dev/video1", w.sPath);
      if (!r.bAuto) {
        EXPECT_EQ(w.uId == kExposureId ? 100 : 104, w.iValue) << r.szName;
      }
    }
    // A buffer that others hold too goes on without a meta.
    GstBuffer* pxShared = QvTest::BufferFromBytes(std::vector<uint8_t>(64, 0));
    ASSERT_EQ(GST_FLOW_OK, gst_harness_push(h, gst_buffer_ref(pxShared)));
    gst_buffer_unref(gst_harness_pull(h));
    EXPECT_EQ(nullptr, gst_buffer_get_meta(pxShared, MY_META_INFO_API_TYPE));
    gst_buffer_unref(pxShared);
    gst_harness_teardown(h);
  }
}

TEST_F(AutoAdaptTest, ADeviceThatCannotBeOpenedFailsEveryFrame) {
  GstHarness* h = Adapt("/dev/video9", 1, false);
  for (int i = 0; i < 2; ++i) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(GST_FLOW_ERROR, Push(h, 0));
    EXPECT_NE(std::string::npos,
              testing::internal::GetCapturedStdout().find("exception catched: \n"))
        << i;
  }
  testing::internal::CaptureStdout();
  Push(h, 0);
  EXPECT_NE(std::string::npos,
            testing::internal::GetCapturedStdout().find("  :   ioctl failed with error 9\n"));
  gst_harness_teardown(h);
}

TEST_F(AutoAdaptTest, WithoutControllerTheLatest64ReportsWait) {
  GstHarness* h = Adapt("/dev/video4", 1, true);
  g_object_set(h->element, "samples", 1, NULL);
  for (int i = 1; i <= 70; ++i) ASSERT_EQ(GST_FLOW_OK, Push(h, static_cast<uint8_t>(i)));
  SAutoAdaptStatus x;
  for (int i = 7; i <= 70; ++i) {
    ASSERT_TRUE(QvAutoAdaptPopReport(x)) << i;
    EXPECT_EQ("/dev/video4", x.sDevice);
    EXPECT_NEAR(i / 255.0f, x.fBrightness, 1e-6) << i;
  }
  EXPECT_FALSE(QvAutoAdaptPopReport(x));
  EXPECT_TRUE(g_xWrites.empty());  // a reporting camera is never written by its own element
  gst_harness_teardown(h);
}

std::vector<GstHarness*> Rig(int iCameras) {
  std::vector<GstHarness*> x;
  for (int k = 0; k < iCameras; ++k)
    x.push_back(Adapt(("/dev/video" + std::to_string(k)).c_str(), 1, true));
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
  // Every report is in now: the controller's next frame steps, if none did yet.
  Push(xRig[0], 255);
  ASSERT_GE(g_xWrites.size(), 12u);
  ASSERT_EQ(0u, g_xWrites.size() % 12);
  for (size_t i = 0; i < g_xWrites.size(); ++i) {
    EXPECT_EQ("/dev/video" + std::to_string(i % 12 / 2), g_xWrites[i].sPath) << i;
    EXPECT_EQ(i % 2 ? kExposureId : 0x9A200Au, g_xWrites[i].uId) << i;
  }
  // The first step starts from the controller's 100 lines at gain 2.
  const float fMean = (2.0f + 2.0f + 0.0001f + 0.0001f + 0.0001f + 0.0001f) / 6.0f;
  const double dProduct = static_cast<double>(kLine * 100 * 2.0f) *
                          std::fma(static_cast<double>(0.4f / fMean) - 1.0, 0.5, 1.0);
  ASSERT_LT(dProduct, kLine * 1470);  // below the longest exposure: gain 1
  for (size_t i = 0; i < 12; i += 2) {
    EXPECT_EQ(52, g_xWrites[i].iValue) << i;
    EXPECT_EQ(static_cast<int32_t>(static_cast<float>(dProduct) / kLine), g_xWrites[i + 1].iValue);
  }
  // Back on its own camera after the step.
  g_xCams["/dev/video0"].iGain = 520;
  MyMetaInfo m;
  Push(xRig[0], 255, &m);
  EXPECT_EQ(10.0f, m.gain);
  for (GstHarness* h : xRig) gst_harness_teardown(h);
}

// In a process of its own: the map that the seventh device spoils lives as long as the process.
[[noreturn]] void SeventhDeviceReports() {
  std::vector<GstHarness*> xRig = Rig(7);
  for (int k = 1; k <= 5; ++k) Push(xRig[k], 0);
  Push(xRig[0], 0);  // five reports in
  Push(xRig[6], 0);
  for (int i = 0; i < 5; ++i)
    for (GstHarness* h : xRig) Push(h, 0);
  std::exit(g_xWrites.empty() ? 0 : 1);
}

TEST_F(AutoAdaptTest, ASeventhDeviceStopsTheJointStepForGood) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(SeventhDeviceReports(), ::testing::ExitedWithCode(0), "");
}

TEST_F(AutoAdaptTest, PipelinePassesTheBytesOnWithTheMeta) {
  GstElement* pxPipeline = gst_parse_launch("appsrc name=src format=time caps=\"" CAPS
                                            "\" ! qvautoadapt device=/dev/video2 update=2 "
                                            "! appsink name=sink sync=false",
                                            NULL);
  ASSERT_NE(nullptr, pxPipeline);
  GstElement* pxSrc = gst_bin_get_by_name(GST_BIN(pxPipeline), "src");
  GstElement* pxSink = gst_bin_get_by_name(GST_BIN(pxPipeline), "sink");
  gst_element_set_state(pxPipeline, GST_STATE_PLAYING);
  for (uint32_t i = 0; i < 4; ++i) {
    const std::vector<uint8_t> xBytes = QvTest::FrameBytes(64, i);
    const SFakeCam x = g_xCams["/dev/video2"];
    ASSERT_EQ(GST_FLOW_OK,
              gst_app_src_push_buffer(GST_APP_SRC(pxSrc), QvTest::BufferFromBytes(xBytes)));
    GstSample* pxSample = gst_app_sink_pull_sample(GST_APP_SINK(pxSink));
    ASSERT_NE(nullptr, pxSample) << i;
    GstBuffer* pxOut = gst_sample_get_buffer(pxSample);
    EXPECT_EQ(0, gst_buffer_memcmp(pxOut, 0, xBytes.data(), xBytes.size())) << i;
    auto* m = reinterpret_cast<MyMetaInfo*>(gst_buffer_get_meta(pxOut, MY_META_INFO_API_TYPE));
    ASSERT_NE(nullptr, m) << i;
    EXPECT_EQ(kLine * x.iExposure, m->exposure) << i;
    EXPECT_EQ(static_cast<float>(x.iGain / 52), m->gain) << i;
    gst_sample_unref(pxSample);
  }
  EXPECT_EQ(4u, g_xWrites.size());  // frames 2 and 4
  gst_element_set_state(pxPipeline, GST_STATE_NULL);
  gst_object_unref(pxSrc);
  gst_object_unref(pxSink);
  gst_object_unref(pxPipeline);
}

}  // namespace
