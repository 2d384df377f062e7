// On a GPU host: the CUDA backend against the host backend on random images. The host results
// come from a child process of this test forced onto the host backend, which recomputes the
// same seeded cases and writes them to a file.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "QvCudaCompConvolve.h"
#include "QvCudaCompDemosaic.h"
#include "QvDevice.h"
#include "TestImages.h"

using namespace Qv;

namespace {

std::string g_sSelf;

CQvImage RunOperation(const char* szOp, const CQvImageFormat& xFormat, uint32_t uSeed) {
  const CQvImage xInput = QvTest::RandomImage(xFormat, uSeed);
  CQvDeviceImage2D xSource(xInput), xTarget;
  const std::string sOp = szOp;
  if (sOp == "debayer") {
    CQvCudaCompDemosaic().Debayer(xTarget, xSource, 1.4285715f, 1.0f, 1.1363636f);
  } else if (sOp == "gauss3") {
    CQvCudaCompConvolve().Apply_Gauss(xTarget, xSource, 1.2, 3, 1);
  } else if (sOp == "gauss11") {
    CQvCudaCompConvolve().Apply_Gauss(xTarget, xSource, 4.0, 11, 1);
  } else if (sOp == "shrink") {
    CQvCudaCompConvolve().Shrink(xTarget, xSource, xFormat.iWidth * 2 / 3, xFormat.iHeight * 3 / 4,
                                 true);
  } else {
    CQvCudaCompConvolve().Resize(xTarget, xSource, 1, 2);
  }
  CQvImage xOut;
  xTarget.CopyTo(xOut);
  return xOut;
}

struct SOpCase {
  const char* szOp;
  CQvImageFormat xFormat;
  uint32_t uSeed;
};

std::vector<SOpCase> Cases() {
  std::vector<SOpCase> x;
  for (auto f : {CQvImageFormat(64, 48, EPixelType::BayerGR, EDataType::UByte),
                 CQvImageFormat(113, 13, EPixelType::BayerRG, EDataType::UByte),
                 CQvImageFormat(37, 29, EPixelType::BayerGB, EDataType::UShort),
                 CQvImageFormat(1921, 1081, EPixelType::BayerBG, EDataType::UByte)})
    x.push_back({"debayer", f, 11});
  for (auto f : {CQvImageFormat(113, 13, EPixelType::RGBA, EDataType::UByte),
                 CQvImageFormat(61, 47, EPixelType::Lum, EDataType::UShort),
                 CQvImageFormat(33, 65, EPixelType::BayerGR, EDataType::UByte)}) {
    x.push_back({"gauss3", f, 12});
    x.push_back({"gauss11", f, 13});
  }
  for (auto f : {CQvImageFormat(113, 13, EPixelType::RGBA, EDataType::UByte),
                 CQvImageFormat(61, 47, EPixelType::Lum, EDataType::UByte),
                 CQvImageFormat(61, 47, EPixelType::Lum, EDataType::UShort)}) {
    x.push_back({"shrink", f, 14});
    x.push_back({"resize", f, 15});
  }
  return x;
}

int WriteHostResults(const char* szPath) {
  setenv("QV_DEVICE", "host", 1);
  std::ofstream xFile(szPath, std::ios::binary);
  for (const SOpCase& c : Cases()) {
    const CQvImage xOut = RunOperation(c.szOp, c.xFormat, c.uSeed);
    const uint64_t uBytes = xOut.GetFormat().GetImageBytes();
    xFile.write(reinterpret_cast<const char*>(&uBytes), sizeof(uBytes));
    xFile.write(static_cast<const char*>(xOut.GetDataPtr()), static_cast<std::streamsize>(uBytes));
  }
  return xFile.good() ? 0 : 1;
}

TEST(Backends, CudaAndHostAgree) {
  if (!Device::IsCuda()) GTEST_SKIP() << "no GPU: the CUDA backend is compared on a GPU host only";
  const std::string sPath = ::testing::TempDir() + "qv_host_results.bin";
  const std::string sCommand = "'" + g_sSelf + "' --write-host-results '" + sPath + "'";
  ASSERT_EQ(0, std::system(sCommand.c_str()));
  std::ifstream xFile(sPath, std::ios::binary);
  for (const SOpCase& c : Cases()) {
    const CQvImage xCuda = RunOperation(c.szOp, c.xFormat, c.uSeed);
    uint64_t uBytes = 0;
    xFile.read(reinterpret_cast<char*>(&uBytes), sizeof(uBytes));
    std::vector<uint8_t> xHost(uBytes);
    xFile.read(reinterpret_cast<char*>(xHost.data()), static_cast<std::streamsize>(uBytes));
    ASSERT_EQ(uBytes, xCuda.GetFormat().GetImageBytes()) << c.szOp;
    const bool bLinear = std::string(c.szOp) == "shrink" || std::string(c.szOp) == "resize";
    const bool b16 = xCuda.GetFormat().eDataType == EDataType::UShort;
    // Point-sampled operations agree bit for bit. The linear filter of the texture unit may
    // round its blend differently from the emulation: one storing step for 8-bit classes; for
    // 16-bit classes the bound of 2 steps is provisional until measured on a GPU host.
    const int iBound = !bLinear ? 0 : (b16 ? 2 : 1);
    int iWorst = 0;
    for (uint64_t i = 0; i < uBytes; i += b16 ? 2 : 1) {
      const int a = b16 ? static_cast<const uint16_t*>(xCuda.GetDataPtr())[i / 2]
                        : static_cast<const uint8_t*>(xCuda.GetDataPtr())[i];
      const int h = b16 ? reinterpret_cast<const uint16_t*>(xHost.data())[i / 2] : xHost[i];
      iWorst = std::max(iWorst, std::abs(a - h));
    }
    EXPECT_LE(iWorst, iBound) << c.szOp << " " << c.xFormat.ToString().ToCString();
    std::printf("%s %s: largest difference %d\n", c.szOp, c.xFormat.ToString().ToCString(), iWorst);
  }
}

}  // namespace

int main(int argc, char** argv) {
  g_sSelf = argv[0];
  if (argc == 3 && std::string(argv[1]) == "--write-host-results") return WriteHostResults(argv[2]);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
