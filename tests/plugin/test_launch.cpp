// qvproc-launch end to end: a pipeline description that names element types without a factory
// runs from a raw file into a file (its failures and Ctrl-C: gst_native.sh).
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "GstTestUtil.h"

namespace {

struct SRun {
  int iExit = -1;
  std::string sOut;
  std::string sErr;
};

// Runs qvproc-launch with the pipeline.
SRun Launch(const std::string& sPipeline) {
  SRun x;
  gchar** ppArgv = NULL;
  GError* pxError = NULL;
  const std::string sCommand = std::string(QV_LAUNCH_PATH) + " " + sPipeline;
  EXPECT_TRUE(g_shell_parse_argv(sCommand.c_str(), NULL, &ppArgv, &pxError));
  gchar* szOut = NULL;
  gchar* szErr = NULL;
  gint iStatus = 0;
  if (g_spawn_sync(NULL, ppArgv, NULL, G_SPAWN_DEFAULT, NULL, NULL, &szOut, &szErr, &iStatus,
                   &pxError)) {
    x.iExit = WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -1;
    x.sOut = szOut ? szOut : "";
    x.sErr = szErr ? szErr : "";
  } else {
    ADD_FAILURE() << (pxError ? pxError->message : "cannot run qvproc-launch");
  }
  g_clear_error(&pxError);
  g_free(szOut);
  g_free(szErr);
  g_strfreev(ppArgv);
  return x;
}

std::string TempPath(const char* szName) {
  // The process id keeps builds that test at the same time apart.
  return ::testing::TempDir() + "qv-launch-" + std::to_string(getpid()) + "-" +
         ::testing::UnitTest::GetInstance()->current_test_info()->name() + "-" + szName;
}

void WriteFile(const std::string& sPath, const std::vector<uint8_t>& x) {
  std::ofstream xFile(sPath, std::ios::binary);
  xFile.write(reinterpret_cast<const char*>(x.data()), static_cast<std::streamsize>(x.size()));
}

std::vector<uint8_t> ReadFile(const std::string& sPath) {
  std::ifstream xFile(sPath, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(xFile), {});
}

std::string FileSourceCaps(const std::string& sPath, size_t uFrameBytes, const char* szCaps) {
  return "filesrc location=" + sPath + " blocksize=" + std::to_string(uFrameBytes) + " ! " + szCaps;
}

// Reference of the whole chain, worked out here from the formulas in single precision: the
// debayer element's output (the shared demosaic reference of a GRBG mosaic), then I420 from the
// BT.601 analogue weights, one fused multiply-add a term in the formulas' order, with the chroma
// of each block's top left pixel and 8-bit storing.
std::vector<uint8_t> ReferenceI420(const uint8_t* pRaw, int W, int H) {
  const std::vector<uint8_t> xRgba =
      QvTest::DemosaicReference(std::vector<uint8_t>(pRaw, pRaw + W * H), W, H, 1, 0);
  const auto Store = [](float v) {
    return static_cast<uint8_t>(std::fmax(std::fmin(255.0f, v * 255.0f), 0.0f));
  };
  const auto C = [&](int x, int y, int i) { return xRgba[4 * (y * W + x) + i] / 255.0f; };
  std::vector<uint8_t> x;
  for (int y = 0; y < H; ++y)
    for (int i = 0; i < W; ++i)
      x.push_back(
          Store(std::fma(0.114f, C(i, y, 2), std::fma(0.299f, C(i, y, 0), 0.587f * C(i, y, 1)))));
  for (int iPlane = 0; iPlane < 2; ++iPlane)
    for (int j = 0; j < H / 2; ++j)
      for (int i = 0; i < W / 2; ++i) {
        const float r = C(2 * i, 2 * j, 0), g = C(2 * i, 2 * j, 1), b = C(2 * i, 2 * j, 2);
        x.push_back(Store(iPlane == 0
                              ? std::fma(0.436f, b, std::fma(-0.147f, r, -0.289f * g)) + 0.5f
                              : std::fma(-0.1f, b, std::fma(0.615f, r, -0.515f * g)) + 0.5f));
      }
  return x;
}

TEST(LaunchPipeline, RawGrbgFileThroughDebayerYuvAndDownloadGivesTheReferenceI420) {
  const int W = 64, H = 48, iFrames = 2;
  const std::vector<uint8_t> xRaw = QvTest::FrameBytes(static_cast<size_t>(iFrames) * W * H, 23);
  const std::string sIn = TempPath("in.grbg"), sOut = TempPath("out.i420");
  WriteFile(sIn, xRaw);
  const SRun x = Launch(
      FileSourceCaps(sIn, W * H, "video/x-bayer,format=grbg,width=64,height=48,framerate=30/1") +
      " ! qvcudaupload ! qvcudadebayer ! qvcudayuv ! qvcudadownload ! "
      "video/x-raw,format=I420 ! filesink location=" +
      sOut);
  EXPECT_EQ(0, x.iExit) << x.sOut << x.sErr;
  const std::vector<uint8_t> xOut = ReadFile(sOut);
  const size_t uFrame = W * H * 3 / 2;
  ASSERT_EQ(iFrames * uFrame, xOut.size());
  for (int f = 0; f < iFrames; ++f) {
    const std::vector<uint8_t> xExpected = ReferenceI420(xRaw.data() + f * W * H, W, H);
    EXPECT_TRUE(std::equal(xExpected.begin(), xExpected.end(), xOut.begin() + f * uFrame))
        << "frame " << f;
  }
  std::remove(sIn.c_str());
  std::remove(sOut.c_str());
}

}  // namespace
