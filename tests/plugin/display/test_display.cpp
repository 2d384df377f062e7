// The display sink and its window on an X server of the test's own (Xvfb, Mesa): the picture
// read back from the screen, keys and pointer through XTest, camera commands against a fake
// v4l2-ctl, and what a process keeps after many pipelines.
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "GstTestUtil.h"
#include "QvDevice.h"
#include "QvException.h"
#include "QvGraphicsInterop.h"
#include "QvMessage.h"
#include "Texture2D.h"
#include "display/gstqvCudaSink.h"
#include "nativewindow_glx.h"

// clang-format off
// After the image code: X11 defines None as a macro.
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XTest.h>
// clang-format on

namespace {

using Clock = std::chrono::steady_clock;
using Expectation = std::function<bool(int, int, uint32_t&)>;
Display* g_pxX = nullptr;  // the test's own connection
pid_t g_iXvfb = -1;
bool g_bEnded = false;  // an exit before the end, whatever its status, fails the run

// An X server on a display number that Xvfb picks itself.
class CXvfb : public ::testing::Environment {
 public:
  void SetUp() override {
    std::atexit([] { g_bEnded ? void() : std::_Exit(1); });
    int aiPipe[2];
    if (pipe(aiPipe) != 0) return;
    if ((g_iXvfb = fork()) == 0) {
      close(aiPipe[0]);
      const std::string sFd = std::to_string(aiPipe[1]);
      execlp("Xvfb", "Xvfb", "-displayfd", sFd.c_str(), "-screen", "0", "1280x1024x24", "-nolisten",
             "tcp", static_cast<char*>(nullptr));
      _exit(127);
    }
    close(aiPipe[1]);
    FILE* pxIn = fdopen(aiPipe[0], "r");
    int iNumber = -1;
    if (fscanf(pxIn, "%d", &iNumber) == 1)
      setenv("DISPLAY", (":" + std::to_string(iNumber)).c_str(), 1), g_pxX = XOpenDisplay(nullptr);
    fclose(pxIn);
  }
  void TearDown() override {
    g_bEnded = true;
    if (g_pxX) XCloseDisplay(g_pxX);
    if (g_iXvfb > 0) kill(g_iXvfb, SIGTERM), waitpid(g_iXvfb, nullptr, 0);
  }
};
const auto* g_pxXvfb = ::testing::AddGlobalTestEnvironment(new CXvfb);

template <class F>
bool WaitFor(F&& fnDone, int iMs = 5000) {
  const auto tEnd = Clock::now() + std::chrono::milliseconds(iMs);
  while (!fnDone()) {
    if (Clock::now() > tEnd) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

Window FindSinkWindows(int* piCount = nullptr) {
  Window xRoot, xParent, *pxChildren = nullptr, xFound = 0;
  unsigned int uCount = 0;
  int iCount = 0;
  XQueryTree(g_pxX, DefaultRootWindow(g_pxX), &xRoot, &xParent, &pxChildren, &uCount);
  for (unsigned int i = 0; i < uCount; ++i) {
    char* szName = nullptr;
    if (XFetchName(g_pxX, pxChildren[i], &szName) && szName) {
      if (std::string(szName) == "QvCudaSink") xFound = pxChildren[i], ++iCount;
      XFree(szName);
    }
  }
  if (pxChildren) XFree(pxChildren);
  if (piCount) *piCount = iCount;
  return xFound;
}

constexpr uint32_t kGray = 0x666666;  // the clear colour 0.4
uint32_t Block(int x, int y) {
  return uint32_t((x / 16 * 37 % 256) << 16 | (y / 16 * 53 % 256) << 8 |
                  (x / 16 + y / 16) * 29 % 256);
}
// The middle of each 16-pixel block, away from the filtering at its edges.
bool Blocks(int x, int y, uint32_t& u) {
  return x % 16 >= 5 && x % 16 <= 10 && y % 16 >= 5 && y % 16 <= 10 && (u = Block(x, y), true);
}

Qv::CQvImage MakeFrame(int iWidth, int iHeight, const std::function<uint32_t(int, int)>& fn) {
  Qv::CQvImage x(Qv::CQvImageFormat(iWidth, iHeight, Qv::EPixelType::RGBA, Qv::EDataType::UByte));
  auto* p = static_cast<uint8_t*>(x.GetDataPtr());
  for (int y = 0; y < iHeight; ++y)
    for (int i = 0; i < iWidth; ++i, p += 4) {
      const uint32_t c = fn(i, y);
      p[0] = c >> 16, p[1] = (c >> 8) & 255, p[2] = c & 255, p[3] = 255;
    }
  return x;
}

// Pixels where the expectation says so; the number that differ, and the first of them.
int Mismatches(Window xWindow, const Expectation& fnExpect, std::string& sFirst, int iTol = 0) {
  XWindowAttributes xa;
  XGetWindowAttributes(g_pxX, xWindow, &xa);
  XImage* pxImage = XGetImage(g_pxX, xWindow, 0, 0, xa.width, xa.height, AllPlanes, ZPixmap);
  if (!pxImage) return -1;
  int iBad = 0;
  for (int y = 2; y < xa.height - 2; ++y)
    for (int x = 2; x < xa.width - 2; ++x) {
      uint32_t uWant = 0;
      if (!fnExpect(x, y, uWant)) continue;
      const uint32_t uGot = XGetPixel(pxImage, x, y) & 0xFFFFFF;
      int iWorst = 0;
      for (int i : {0, 8, 16})
        iWorst = std::max(iWorst, std::abs(int((uGot >> i) & 255) - int((uWant >> i) & 255)));
      if (iWorst > iTol && iBad++ == 0)
        sFirst = std::to_string(x) + "," + std::to_string(y) + " got " + std::to_string(uGot);
    }
  XDestroyImage(pxImage);
  return iBad;
}

class DisplaySink : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!g_pxX) GTEST_SKIP() << "Xvfb is not installed: the display tests need it";
    m_pxH = gst_harness_new("qvcudasink");
    g_object_set(m_pxH->element, "sync", FALSE, NULL);
    gst_harness_set_src_caps_str(m_pxH, "video/x-raw,format=RGBA,width=8,height=8,framerate=0/1");
  }
  void TearDown() override {
    if (m_pxH) gst_harness_teardown(m_pxH);
  }
  CNativeWindowX11GLX* Win() { return GST_CUDA_SINK(m_pxH->element)->pxWindow; }
  void Push(const Qv::CQvImage& xFrame) {
    gst_harness_push(m_pxH, QvTest::DeviceImageBuffer(xFrame));
  }
  // Pushes the frame until the window has taken it; the window is up afterwards.
  void Show(const Qv::CQvImage& xFrame) {
    Push(xFrame);
    const uint64_t uShown = Win()->GetShownCount();
    ASSERT_TRUE(WaitFor([&] { return Push(xFrame), Win()->GetShownCount() > uShown; }))
        << "the window never took a frame";
    ASSERT_NE(0u, m_xWindow = FindSinkWindows());
  }
  void Key(const std::string& sKey) {
    XSetInputFocus(g_pxX, m_xWindow, RevertToParent, CurrentTime);
    const KeyCode uCode = XKeysymToKeycode(g_pxX, XStringToKeysym(sKey.c_str()));
    XTestFakeKeyEvent(g_pxX, uCode, True, 0);
    XTestFakeKeyEvent(g_pxX, uCode, False, 0);
    XSync(g_pxX, False);
  }
  int CameraOfNextFrame(const Qv::CQvImage& xFrame) {
    while (GstEvent* pxOld = gst_harness_try_pull_upstream_event(m_pxH)) gst_event_unref(pxOld);
    Push(xFrame);
    int iCamera = -100;
    while (GstEvent* pxEvent = gst_harness_try_pull_upstream_event(m_pxH)) {
      const GstStructure* s = gst_event_get_structure(pxEvent);
      if (s && gst_structure_has_name(s, "eventStruct"))
        gst_structure_get_int(s, "camID", &iCamera);
      gst_event_unref(pxEvent);
    }
    return iCamera;
  }
  GstHarness* m_pxH = nullptr;
  Window m_xWindow = 0;
};

TEST_F(DisplaySink, PictureKeepsAspectFollowsTheWindowAndDropsFramesWhenBusy) {
  const uint64_t uRegistered = Qv::Device::GetGraphicsRegistrationCount();
  const Qv::CQvImage xBlocks = MakeFrame(800, 600, Block);
  Push(xBlocks);
  ASSERT_TRUE(WaitFor([] { return FindSinkWindows() != 0; }));
  m_xWindow = FindSinkWindows();
  std::string sFirst;
  auto fnGray = [](int, int, uint32_t& u) { return u = kGray, true; };
  EXPECT_TRUE(WaitFor([&] { return Mismatches(m_xWindow, fnGray, sFirst) == 0; }))
      << "not gray before the first image: " << sFirst;
  EXPECT_GE(Win()->GetSkippedCount(), 1u) << "the first frame came before the window";

  auto fnHalf = [](int x, int y, uint32_t& u) { return Blocks(2 * x, 2 * y, u); };
  auto fnBars = [](int x, int) { return x < 200 ? 0xFF0000u : x >= 1400 ? 255u : 0x00FF00u; };
  struct SRow {
    const char* szName;
    Qv::CQvImage xFrame;
    int iWindowWidth, iWindowHeight;
    bool bMipMap;
    Expectation fnExpect;
  } aRows[] = {
      {"4:3 in 4:3", xBlocks, 800, 600, false, Blocks},
      {"16:9 cut left and right", MakeFrame(1600, 900, fnBars), 800, 600, false,
       [](int, int, uint32_t& u) { return u = 0x00FF00, true; }},
      {"2:3 between gray bars", MakeFrame(400, 600, Block), 800, 600, false,
       [](int x, int y, uint32_t& u) {
         if (x < 196 || x >= 604) return u = kGray, true;
         return x >= 200 && x < 600 && Blocks(x - 200, y, u);
       }},
      {"resized to 400x300", xBlocks, 400, 300, false, fnHalf},
      {"mip chain at half size", xBlocks, 400, 300, true, fnHalf},
  };
  for (SRow& r : aRows) {
    XResizeWindow(g_pxX, m_xWindow, r.iWindowWidth, r.iWindowHeight);
    XSync(g_pxX, False);
    g_object_set(m_pxH->element, "mipmap", r.bMipMap, NULL);
    Show(r.xFrame);
    // Trilinear filtering mixes in a little of the next, more blurred level.
    const int iTol = r.bMipMap ? 4 : 0;
    EXPECT_TRUE(WaitFor([&] { return Mismatches(m_xWindow, r.fnExpect, sFirst, iTol) == 0; }, 3000))
        << r.szName << ": " << Mismatches(m_xWindow, r.fnExpect, sFirst, iTol)
        << " pixels differ, first " << sFirst;
    // On a GPU whose GL shares the device, the texture is registered once for many frames.
    for (int i = 0; i < 100 && &r == aRows && Qv::Device::IsCuda(); ++i) Push(r.xFrame);
    const uint64_t uNew = Qv::Device::GetGraphicsRegistrationCount() - uRegistered;
    EXPECT_TRUE(&r != aRows || uNew <= 1) << uNew << " registrations";
  }
  // A busy window drops frames, and a render returns long before it would have waited.
  const Qv::CQvImage xFrame = MakeFrame(1920, 1080, Block);
  Clock::duration xLongest{};
  for (int i = 0; i < 40; ++i) {
    const auto t0 = Clock::now();
    Push(xFrame);
    xLongest = std::max(xLongest, Clock::now() - t0);
  }
  EXPECT_GT(Win()->GetSkippedCount(), 1u) << "back-to-back frames never found the window busy";
  EXPECT_GT(Win()->GetShownCount(), 2u);
  // Generous: a loaded 2-core machine with a software GL takes seconds for one upload.
  EXPECT_LT(xLongest, std::chrono::seconds(10)) << "a render waited for more than one upload";
  Qv::CMessageCapture xMessages;
  gst_harness_push(m_pxH, gst_buffer_new());
  EXPECT_NE(std::string::npos, xMessages.Text().find("No device image embedded\n"));
}

TEST_F(DisplaySink, KeysPickCameraMipMapAndViewAndRunV4l2CtlInDeviceOrder) {
  const Qv::CQvImage xFrame = MakeFrame(800, 600, Block);
  Show(xFrame);
  EXPECT_EQ(0, CameraOfNextFrame(xFrame)) << "camera 0 from the start";
  Key("3");
  ASSERT_TRUE(WaitFor([&] { return Win()->iCamera == 2; }));
  EXPECT_EQ(2, CameraOfNextFrame(xFrame));
  EXPECT_EQ(2, CameraOfNextFrame(xFrame)) << "on every frame";
  gboolean bMipMap = TRUE;
  g_object_get(m_pxH->element, "mipmap", &bMipMap, NULL);
  EXPECT_FALSE(bMipMap);
  Key("m");
  EXPECT_TRUE(
      WaitFor([&] { return g_object_get(m_pxH->element, "mipmap", &bMipMap, NULL), bMipMap; }));

  // Pan with the left button, zoom with the right one: 100 pixels up-left, then 100 down.
  auto fnMove = [&](int x, int y) {
    XTestFakeMotionEvent(g_pxX, DefaultScreen(g_pxX), x, y, 0);
    XSync(g_pxX, False);
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
  };
  fnMove(400, 300);
  XTestFakeButtonEvent(g_pxX, 1, True, 0);
  fnMove(300, 250);
  XTestFakeButtonEvent(g_pxX, 1, False, 0);
  EXPECT_NEAR(-0.25f, Win()->fPanX, 1e-5) << "2 * (4/3 / 4/3) * 100 / 800 to the left";
  EXPECT_NEAR(2.0f * 50 / 600, Win()->fPanY, 1e-5);
  XTestFakeButtonEvent(g_pxX, 3, True, 0);
  fnMove(300, 350);
  XTestFakeButtonEvent(g_pxX, 3, False, 0);
  EXPECT_NEAR(std::pow(1.01, 100), Win()->fZoom, 1e-4) << "moving down zooms in";
  Key("r");
  EXPECT_TRUE(WaitFor(
      [&] { return Win()->fZoom == 1.0f && Win()->fPanX == 0.0f && Win()->fPanY == 0.0f; }));

  // Camera keys against a fake v4l2-ctl that logs its arguments and answers reads.
  char szDir[] = "/tmp/qvfakeXXXXXX";
  ASSERT_TRUE(mkdtemp(szDir));
  const std::string sLog = std::string(szDir) + "/log", sTool = std::string(szDir) + "/v4l2-ctl";
  std::ofstream(sTool) << "#!/bin/sh\necho \"$*\" >> " << sLog
                       << "\ncase \"$*\" in *\" -C \"*) printf '%s' \"$QV_FAKE_ANSWER\";; esac\n";
  chmod(sTool.c_str(), 0755);
  const std::string sPath = getenv("PATH");
  auto fnCmd = [](int d, const std::string& s) { return "-d /dev/video" + std::to_string(d) + s; };
  std::vector<std::string> xAll, xReads;
  for (int d : {0, 4, 1, 3, 2, 5}) {
    xAll.insert(xAll.end(), {fnCmd(d, " -C gain"), fnCmd(d, " -c gain=150")});
    xReads.push_back(fnCmd(d, " -C coarse_time"));
  }
  auto fnLines = [&] {
    std::vector<std::string> x;
    std::ifstream xIn(sLog);
    for (std::string s; std::getline(xIn, s);) x.push_back(s);
    return x;
  };
  struct SRow {
    const char *szKeys, *szAnswer;
    bool bTool;
    std::vector<std::string> xExpected;
  } aRows[] = {
      // clang-format off
      {"7w", "gain: 100\n", true, xAll},
      {"2e", "coarse_time: 1000\n", true, {fnCmd(4, " -C coarse_time"), fnCmd(4, " -c coarse_time=1250")}},
      {"1a", "focus_absolute: 30\n", true, {fnCmd(0, " -C focus_absolute"), fnCmd(0, " -c focus_absolute=-70")}},
      {"1w", "", true, {fnCmd(0, " -C gain")}},
      {"8h", "error: no such control\n", true, xReads},
      {"1z", "", false, {}},
      // clang-format on
  };
  for (const SRow& r : aRows) {
    unlink(sLog.c_str());
    setenv("QV_FAKE_ANSWER", r.szAnswer, 1);
    setenv("PATH", ((r.bTool ? std::string(szDir) + ":" : "/nonexistent:") + sPath).c_str(), 1);
    Key(std::string(1, r.szKeys[0]));
    Key(r.szKeys + 1);
    WaitFor([&] { return !r.bTool || fnLines().size() >= r.xExpected.size(); }, 3000);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(r.xExpected, fnLines()) << "keys " << r.szKeys;
    EXPECT_FALSE(Win()->IsClosed()) << "keys " << r.szKeys;
  }
  setenv("PATH", sPath.c_str(), 1);
  unlink(sLog.c_str()), unlink(sTool.c_str()), rmdir(szDir);
}

int CountEntries(const char* szDir) {
  return static_cast<int>(std::distance(std::filesystem::directory_iterator(szDir), {}));
}

// NULL ends the window and its thread; PLAYING opens a new one. Both cores are kept busy.
TEST_F(DisplaySink, NullEndsTheWindowAndItsThreadAndPlayingOpensANewOne) {
  const QvTest::CBusyCores xLoad;
  const int iThreads = CountEntries("/proc/self/task");
  const Qv::CQvImage xFrame = MakeFrame(800, 600, Block);
  for (int i = 0, iWindows = -1; i < 3; ++i) {
    i % 2 ? Push(xFrame) : Show(xFrame);  // odd runs stop a window that is still starting
    gst_element_set_state(m_pxH->element, GST_STATE_NULL);
    EXPECT_EQ(iThreads, CountEntries("/proc/self/task")) << "run " << i;
    EXPECT_EQ(0, (FindSinkWindows(&iWindows), iWindows)) << "run " << i;
    gst_harness_play(m_pxH);
    gst_harness_set_src_caps_str(m_pxH, "video/x-raw,format=RGBA,width=8,height=8,framerate=0/1");
  }
}

// Runs a camera pipeline of frames iWidth wide into the sink; once the window is up, the window
// manager's close button is pressed, or another client destroys it. The bus's error text, empty
// at a clean end.
enum EOnWindow { kNothing, kClose, kDestroy };
std::string RunPipeline(int iFrames, EOnWindow eOnWindow, int iWidth = 64) {
  QvTest::CPipeline xPipeline(
      "videotestsrc num-buffers=" + std::to_string(iFrames) +
      " ! video/x-raw,format=GRAY8,height=48,framerate=30/1,width=" + std::to_string(iWidth) +
      " ! qvcudaupload ! qvcudadebayer ! qvcudasink sync=false");
  if (eOnWindow == kDestroy && WaitFor([] { return FindSinkWindows() != 0; }))
    XDestroyWindow(g_pxX, FindSinkWindows()), XSync(g_pxX, False);
  if (eOnWindow == kClose && WaitFor([] { return FindSinkWindows() != 0; })) {
    XEvent x = {};
    x.xclient.type = ClientMessage;
    x.xclient.window = FindSinkWindows();
    x.xclient.message_type = XInternAtom(g_pxX, "WM_PROTOCOLS", False);
    x.xclient.format = 32;
    x.xclient.data.l[0] = static_cast<long>(XInternAtom(g_pxX, "WM_DELETE_WINDOW", False));
    XSendEvent(g_pxX, x.xclient.window, False, NoEventMask, &x);
    XSync(g_pxX, False);
  }
  std::string sTexts;
  for (const std::string& s : xPipeline.RunToEnd(20 * GST_SECOND)) sTexts += s;
  return sTexts;
}

TEST(DisplayPipeline, EndsCleanlyAndLeavesNoThreadWindowOrConnection) {
  if (!g_pxX) GTEST_SKIP() << "Xvfb is not installed: the display tests need it";
  EXPECT_EQ("error: Output window was closed", RunPipeline(100000, kClose));
  const int iThreads = CountEntries("/proc/self/task"), iFds = CountEntries("/proc/self/fd");
  Qv::CMessageCapture xMessages;
  for (int i = 0; i < 10; ++i) ASSERT_EQ("", RunPipeline(i ? 10 : 50, kNothing)) << "run " << i;
  const std::string sOut = xMessages.Text();
  int iFps = 0, iWindows = -1;
  for (size_t i = sOut.find("FPS: "); i != std::string::npos; i = sOut.find("FPS: ", i + 1)) ++iFps;
  EXPECT_EQ(2, iFps) << "one rate every 25 frames";
  FindSinkWindows(&iWindows);
  EXPECT_EQ(0, iWindows);
  // GLib's pool lets the streaming threads of the runs end in their own time.
  EXPECT_TRUE(WaitFor([&] { return CountEntries("/proc/self/task") <= iThreads; }));
  EXPECT_EQ(iFds, CountEntries("/proc/self/fd")) << "an X11 connection stayed open";
}

// Plugins never end their host: what the window can't do ends the pipeline with an error.
TEST(DisplayPipeline, WindowFailuresAreElementErrorsAndNeverEndTheProcess) {
  if (!g_pxX) GTEST_SKIP() << "Xvfb is not installed: the display tests need it";
  // GL_MAX_TEXTURE_SIZE is 16384 in Mesa and 32768 on NVIDIA.
  std::string s = RunPipeline(100000, kNothing, 40000);
  EXPECT_EQ(0u, s.find("error: frame 40000 x 48 is larger than the GL texture limit")) << s;
  s = RunPipeline(100000, kDestroy);
  EXPECT_EQ(0u, s.find("error: X error: Bad")) << s;
  const std::string sDisplay = getenv("DISPLAY");
  setenv("DISPLAY", ":32767", 1);
  EXPECT_EQ("error: cannot connect to X server", RunPipeline(100000, kNothing));
  setenv("DISPLAY", sDisplay.c_str(), 1);
}

}  // namespace
