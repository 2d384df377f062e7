// The JPEG sink: files and their numbering, the location patterns, write failures, and the
// decoded pictures against the YUV conversion's luma.
#include <gst/check/gstharness.h>
#include <gtest/gtest.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "GstTestUtil.h"
#include "QvCudaCompYUV.h"
#include "QvDeviceImage2D.h"
#include "QvJpegEncoder.h"
#include "QvMessage.h"
#include "gstqvHostElements.h"

using namespace Qv;

namespace {

// Ramps with fine texture and 8-pixel squares: detail that a low quality would lose.
CQvImage TestFrame(int w, int h) {
  CQvImage x(CQvImageFormat(w, h, EPixelType::RGBA, EDataType::UByte));
  auto* p = static_cast<uint8_t*>(x.GetDataPtr());
  for (int y = 0; y < h; ++y)
    for (int i = 0; i < w; ++i, p += 4)
      p[0] = uint8_t(i * 200 / w + ((i ^ y) & 31)), p[1] = uint8_t(y * 200 / h + ((i * y) & 31)),
      p[2] = ((i / 8 + y / 8) % 2) ? 200 : 50, p[3] = 255;
  return x;
}

// The Y plane as the one-image YUV conversion gives it.
std::vector<uint8_t> ExpectedLuma(const CQvImage& xFrame) {
  CQvDeviceImage2D xSource(xFrame), xI420;
  CQvCudaCompYUV().Convert(xI420, xSource);
  std::vector<uint8_t> x(xI420.GetFormat().GetRowBytes() * size_t(xI420.GetFormat().iHeight));
  xI420.Download(x.data(), xI420.GetFormat().GetRowBytes());
  return std::vector<uint8_t>(x.begin(), x.begin() + long(x.size() * 2 / 3));
}

// The luma of a 4:2:0 JPEG file of the given size, empty where the file is not one.
std::vector<uint8_t> DecodedLuma(const std::string& sPath, int w, int h) {
  std::ifstream xFile(sPath, std::ios::binary);
  const std::string sJpeg{std::istreambuf_iterator<char>(xFile), std::istreambuf_iterator<char>()};
  const auto* pJpeg = reinterpret_cast<const unsigned char*>(sJpeg.data());
  std::vector<uint8_t> xY(size_t(w) * h);
  tjhandle hTj = tjInitDecompress();
  int iW = 0, iH = 0, iSub = -1, iSpace = -1;
  const bool bOk = tjDecompressHeader3(hTj, pJpeg, sJpeg.size(), &iW, &iH, &iSub, &iSpace) == 0 &&
                   iW == w && iH == h && iSub == TJSAMP_420 &&
                   tjDecompress2(hTj, pJpeg, sJpeg.size(), xY.data(), w, 0, h, TJPF_GRAY, 0) == 0;
  tjDestroy(hTj);
  return bOk ? xY : std::vector<uint8_t>();
}

// Within JPEG error at quality 95 (this frame gives 42 dB, quality 30 gives 34 dB).
void ExpectJpegClose(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b,
                     const std::string& sWhat) {
  ASSERT_EQ(a.size(), b.size()) << sWhat;
  double dSq = 0;
  int iMax = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    const int d = std::abs(int(a[i]) - int(b[i]));
    dSq += d * d, iMax = std::max(iMax, d);
  }
  EXPECT_GT(10 * std::log10(255.0 * 255.0 * a.size() / std::max(dSq, 1.0)), 40.0) << sWhat;
  EXPECT_LE(iMax, 12) << sWhat;
}

class JpegSinkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(qv_register_host_elements());
    char szDir[] = "/tmp/qvjpeg-XXXXXX";
    m_sDir = mkdtemp(szDir);
    m_pxHarness = gst_harness_new("qvcudajpegsink");
    m_pxBus = gst_bus_new();
    gst_element_set_bus(m_pxHarness->element, m_pxBus);
    g_object_set(m_pxHarness->element, "quality", 95, "sync", FALSE, NULL);
  }
  void TearDown() override {
    // Messages on the bus hold the element.
    gst_bus_set_flushing(m_pxBus, TRUE);
    Qv::CMessageCapture xMessages;
    gst_harness_teardown(m_pxHarness);
    EXPECT_EQ(" sink finalize \n", xMessages.Text());
    gst_object_unref(m_pxBus);
    std::filesystem::remove_all(m_sDir);
  }
  void Start(int w, int h) {
    gst_harness_set_src_caps_str(m_pxHarness, ("video/x-raw,format=RGBA,framerate=25/1,width=" +
                                               std::to_string(w) + ",height=" + std::to_string(h))
                                                  .c_str());
  }
  void SetLocation(const std::string& s) {
    g_object_set(m_pxHarness->element, "location", (m_sDir + "/" + s).c_str(), NULL);
  }
  GstFlowReturn Push(int w, int h) {
    return gst_harness_push(m_pxHarness, QvTest::DeviceImageBuffer(TestFrame(w, h)));
  }
  std::vector<std::string> Files() const {
    std::vector<std::string> x;
    for (const auto& xEntry : std::filesystem::directory_iterator(m_sDir))
      x.push_back(xEntry.path().filename());
    std::sort(x.begin(), x.end());
    return x;
  }
  std::string BusText() {
    std::string s;
    while (GstMessage* pxMsg = gst_bus_pop_filtered(
               m_pxBus, GstMessageType(GST_MESSAGE_WARNING | GST_MESSAGE_ERROR))) {
      s += QvTest::MessageText(pxMsg) + "\n";
      gst_message_unref(pxMsg);
    }
    return s;
  }
  std::string m_sDir;
  GstHarness* m_pxHarness = nullptr;
  GstBus* m_pxBus = nullptr;
};

TEST_F(JpegSinkTest, EveryFrameDecodesToTheLumaOfTheYuvConversion) {
  // The scaled camera frame once, a small frame three times. Where a GPU has nvJPEG, it encodes.
  const struct { int w, h, iFrames; } xRows[] = {{3840, 1784, 1}, {64, 48, 3}};
  int iFile = 0;
  for (const auto& r : xRows) {
    Start(r.w, r.h);
    SetLocation("f%05d.jpg");
    const std::vector<uint8_t> xExpected = ExpectedLuma(TestFrame(r.w, r.h));
    for (int i = 0; i < r.iFrames; ++i) {
      ASSERT_EQ(GST_FLOW_OK, Push(r.w, r.h)) << r.h;
      const std::string sName = "/f0000" + std::to_string(++iFile) + ".jpg";
      ExpectJpegClose(DecodedLuma(m_sDir + sName, r.w, r.h), xExpected, sName);
    }
  }
  EXPECT_EQ("", BusText());
}

TEST_F(JpegSinkTest, NumberingStartsAtOneAndGoesOnOverAStopAndStart) {
  Start(16, 8);
  SetLocation("n%d.jpg");
  // One rate line, at the fifth frame.
  Qv::CMessageCapture xMessages;
  for (int i = 0; i < 5; ++i) ASSERT_EQ(GST_FLOW_OK, Push(16, 8));
  const std::string sOut = xMessages.Text();
  EXPECT_TRUE(sOut.rfind("FPS: ", 0) == 0 && sOut.find('\n') == sOut.size() - 1) << sOut;
  gst_element_set_state(m_pxHarness->element, GST_STATE_NULL);
  gst_harness_play(m_pxHarness);
  Start(16, 8);
  ASSERT_EQ(GST_FLOW_OK, Push(16, 8));
  EXPECT_EQ((std::vector<std::string>{"n1.jpg", "n2.jpg", "n3.jpg", "n4.jpg", "n5.jpg", "n6.jpg"}),
            Files());
  // Without a conversion every frame goes to the one file.
  SetLocation("same.jpg");
  for (int i = 0; i < 3; ++i) ASSERT_EQ(GST_FLOW_OK, Push(16, 8));
  EXPECT_EQ(7u, Files().size());
}

// A refused pattern fails the next start, naming it, even where no bus saw the refusal; no frame
// goes to the default name in the working folder.
TEST_F(JpegSinkTest, ARefusedLocationFailsStartAndGoodPatternsNameTheFiles) {
  const auto xCwd = std::filesystem::current_path();
  std::filesystem::current_path(m_sDir);
  gst_element_set_state(m_pxHarness->element, GST_STATE_NULL);
  for (const char* szPattern : {"o/x%s.jpg", "%n", "%d%d", "%ld", "%*d", "%", "x%", "%5.d%"}) {
    gst_element_set_bus(m_pxHarness->element, NULL);
    SetLocation(szPattern);
    gst_element_set_bus(m_pxHarness->element, m_pxBus);
    EXPECT_EQ(GST_STATE_CHANGE_FAILURE,
              gst_element_set_state(m_pxHarness->element, GST_STATE_PLAYING));
    EXPECT_NE(GST_FLOW_OK, Push(16, 8));
    EXPECT_NE(std::string::npos, BusText().find(m_sDir + "/" + szPattern + "\" refused"));
  }
  EXPECT_EQ(std::vector<std::string>{}, Files());
  std::filesystem::current_path(xCwd);
  SetLocation("before%d");
  gst_harness_play(m_pxHarness);
  Start(16, 8);
  // Each good pattern names the next frame's file; one too long names none.
  const std::string s300(300, 'a');
  const std::pair<std::string, std::string> xGood[] = {
      {"f%05d.jpg", "f00001.jpg"}, {"%x", "2"}, {"%%d_%d", "%d_3"}, {"%#x", "0x4"}, {s300, ""}};
  for (const auto& r : xGood) {
    SetLocation(r.first);
    const size_t uBefore = Files().size();
    ASSERT_EQ(GST_FLOW_OK, Push(16, 8)) << r.first;
    EXPECT_EQ(r.second.empty(), BusText().find("longer than 255") != std::string::npos);
    EXPECT_EQ(uBefore + !r.second.empty(), Files().size()) << r.first;
    EXPECT_TRUE(r.second.empty() ||
                g_file_test((m_sDir + "/" + r.second).c_str(), G_FILE_TEST_IS_REGULAR))
        << r.first;
  }
}

// Odd sizes are refused at negotiation. A file that cannot be opened, or a frame that does not
// fit the caps, loses that frame with its reason; the next one is written.
TEST_F(JpegSinkTest, RefusedSizesAndLostFramesSayWhy) {
  for (const auto& xSize : {std::make_pair(63, 48), std::make_pair(64, 47)}) {
    Start(xSize.first, xSize.second);
    EXPECT_EQ(GST_FLOW_NOT_NEGOTIATED, Push(xSize.first, xSize.second));
    EXPECT_NE(std::string::npos, BusText().find("need an even width"));
  }
  Start(16, 8);
  SetLocation("missing/f%d.jpg");
  ASSERT_EQ(GST_FLOW_OK, Push(16, 8));
  EXPECT_NE(std::string::npos, BusText().find(m_sDir + "/missing/f1.jpg"));
  SetLocation("f%d.jpg");
  Qv::CMessageCapture xMessages;
  ASSERT_EQ(GST_FLOW_OK, Push(32, 8));
  EXPECT_NE(std::string::npos,
            xMessages.Text().find("a frame of 32x8 does not fit the platform buffer of 16x8"));
  ASSERT_EQ(GST_FLOW_OK, Push(16, 8));
  EXPECT_EQ(std::vector<std::string>{"f3.jpg"}, Files());
  ExpectJpegClose(DecodedLuma(m_sDir + "/f3.jpg", 16, 8), ExpectedLuma(TestFrame(16, 8)), "f3");
}

// The whole road: a mosaic through upload and demosaic, the image teed to the sink and to the
// YUV element, whose Y plane the decoded JPEG must match.
TEST_F(JpegSinkTest, PipelineFileMatchesTheYPlaneOfTheSameFrame) {
  const std::string sLaunch =
      "appsrc name=src caps=video/x-bayer,format=grbg,width=64,height=48,framerate=25/1 ! "
      "qvcudaupload ! qvcudadebayer ! tee name=t ! qvcudajpegsink sync=false async=false "
      "location=" +
      m_sDir +
      "/p%d.jpg t. ! qvcudayuv ! qvcudadownload ! appsink name=out "
      "sync=false async=false";
  QvTest::CPipeline xPipeline(sLaunch);
  GstElement *pxSrc = xPipeline.Element("src"), *pxOut = xPipeline.Element("out");
  std::vector<uint8_t> xMosaic(64 * 48);
  for (size_t i = 0; i < xMosaic.size(); ++i) xMosaic[i] = uint8_t(20 + (i % 64) * 2 + i / 64);
  GstFlowReturn eFlow = GST_FLOW_ERROR;
  g_signal_emit_by_name(pxSrc, "push-buffer", QvTest::BufferFromBytes(xMosaic), &eFlow);
  EXPECT_EQ(GST_FLOW_OK, eFlow);
  GstSample* pxSample = NULL;
  g_signal_emit_by_name(pxOut, "try-pull-sample", 5 * GST_SECOND, &pxSample);
  ASSERT_NE(nullptr, pxSample);
  std::vector<uint8_t> xY(64 * 48);
  gst_buffer_extract(gst_sample_get_buffer(pxSample), 0, xY.data(), xY.size());
  ExpectJpegClose(DecodedLuma(m_sDir + "/p1.jpg", 64, 48), xY, "pipeline");
  gst_sample_unref(pxSample);
}

// Plane 0 of a buffer's file: rows land a pitch apart, and nothing is written where the pitch
// or the file cannot take the image.
}  // namespace
