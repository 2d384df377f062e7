// The device runtime: device images, their copies and refusals, the allocator, the device
// exception and the choice of the backend.

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "QvBusyCores.h"
#include "QvCudaException.h"
#include "QvDevice.h"
#include "QvDeviceImage2D.h"
#include "QvDeviceMMU.h"
#include "TestImages.h"
#include "TextureBinding.h"

using namespace Qv;
using QvTest::Thrown;

namespace {

TEST(DeviceImage2D, CopiesInEveryDirectionKeepEveryByteForOddSizesAndClasses) {
  const EDataType::ID UB = EDataType::UByte, US = EDataType::UShort, F = EDataType::Float;
  const CQvImageFormat aFormats[] = {
      {1, 1, EPixelType::Lum, UB},  {3, 5, EPixelType::BayerGR, UB}, {113, 13, EPixelType::Lum, UB},
      {7, 3, EPixelType::Lum, US},  {13, 7, EPixelType::RGBA, UB},   {5, 9, EPixelType::RGBA, US},
      {17, 4, EPixelType::RGBA, F}, {11, 2, EPixelType::RGB, UB},    {1, 64, EPixelType::Lum, F},
      {64, 1, EPixelType::LumA, UB}};
  uint32_t uSeed = 0;
  for (const CQvImageFormat& f : aFormats) {
    SCOPED_TRACE(f.ToString().ToCString());
    const CQvImage xSource = QvTest::RandomImage(f, ++uSeed);
    const size_t uRow = f.GetRowBytes(), uPitch = uRow + 7;
    auto Same = [&](const CQvDeviceImage2D& x) {
      CQvImage xBack;
      x.CopyTo(xBack);
      return std::memcmp(xSource.GetDataPtr(), xBack.GetDataPtr(), uRow * f.iHeight) == 0;
    };
    CQvDeviceImage2D xDevice(xSource), xSecond;
    EXPECT_GE(xDevice.GetDevicePitch(), uRow);
    xDevice.CopyTo(xSecond);  // device to device
    EXPECT_TRUE(Same(xSecond));
    // Rows into a padded host buffer land at the padded positions; the padding stays.
    std::vector<uint8_t> xPadded(uPitch * f.iHeight, 0xEE);
    xDevice.Download(xPadded.data(), uPitch);
    for (int y = 0; y < f.iHeight; ++y) {
      ASSERT_EQ(0, std::memcmp(xPadded.data() + y * uPitch,
                               static_cast<const uint8_t*>(xSource.GetDataPtr()) + y * uRow, uRow));
      ASSERT_EQ(0xEE, xPadded[y * uPitch + uRow]);
    }
    // And back from it into a cleared image whose Create with the same format kept its memory.
    CQvDeviceImage2D xThird(f);
    void* pBefore = xThird.GetDevicePointer();
    xThird.SetZero();
    xThird.Create(f);
    xThird.Upload(xPadded.data(), uPitch, nullptr, false);
    EXPECT_TRUE(Same(xThird) && pBefore == xThird.GetDevicePointer());
  }
}

TEST(DeviceImage2D, RefusesWhatWouldReadOrWriteOutOfBounds) {
  CQvDeviceImage2D xEmpty, xImage(CQvImageFormat(9, 4, EPixelType::RGBA, EDataType::UByte));
  const CQvDeviceImage2D xRgb(CQvImageFormat(4, 4, EPixelType::RGB, EDataType::UByte));
  CQvImage xHost;
  std::vector<uint8_t> xBuffer(36 * 4);
  uint8_t* p = xBuffer.data();
  // clang-format off
  const struct { const char* szRow; std::function<void()> fnRun; const char* szMessage; }
  aCases[] = {
      {"copy of empty", [&] { xEmpty.CopyTo(xHost); }, "Image is invalid"},
      {"device copy of empty", [&] { xEmpty.CopyTo(xImage); }, "Image is invalid"},
      {"zero of empty", [&] { xEmpty.SetZero(); }, "Image is invalid"},
      {"upload to empty", [&] { xEmpty.Upload(p, 36, nullptr, false); }, "Image is invalid"},
      {"download of empty", [&] { xEmpty.Download(p, 36); }, "Image is invalid"},
      {"texture of empty", [&] { CTextureBinding x(xEmpty, false); }, "Image is invalid"},
      {"texture of rgb", [&] { CTextureBinding x(xRgb, false); }, "Error binding device image to "
       "CUDA texture > Image format cannot be read through a texture: 4x4, RGB, UByte"},
      {"short source rows", [&] { xImage.Upload(p, 35, nullptr, false); },
       "Source rows are shorter than the image rows"},
      {"short target rows", [&] { xImage.Download(p, 35); },
       "Target rows are shorter than the image rows"},
      {"no source", [&] { xEmpty.Create(xImage.GetFormat(), nullptr, false); },
       "No source data for device image"},
      {"zero width", [&] { xEmpty.Create({0, 5, EPixelType::Lum, EDataType::UByte}); },
       "Invalid device image size 0x5"},
      {"no pixel type", [&] { xEmpty.Create({4, 4, EPixelType::None, EDataType::UByte}); },
       "Device image format has no pixel size: 4x4, None, UByte"},
  };
  // clang-format on
  for (const auto& c : aCases) EXPECT_EQ(Thrown(c.fnRun), c.szMessage) << c.szRow;
}

// The caching allocator: a block is reused only for a request of the same shape, and the
// allocation count shows when the device was asked for memory.
TEST(DeviceMMU, OnlyTheSameShapeReusesACachedBlockAndItsPitch) {
  auto Count = [] { return CQvDeviceMMU::GetAllocationCount(); };
  CQvDeviceMMU::Trim();
  EXPECT_EQ(0u, CQvDeviceMMU::GetCachedBytes());
  const uint64_t uBefore = Count();
  const CQvImageFormat xFormat(1001, 3, EPixelType::Lum, EDataType::UByte);
  size_t uPitch = 0;
  void* p = nullptr;
  {
    CQvDeviceImage2D x(xFormat);
    p = x.GetDevicePointer(), uPitch = x.GetDevicePitch();
  }
  EXPECT_EQ(uBefore + 1, Count());
  EXPECT_EQ(uPitch * 3, CQvDeviceMMU::GetCachedBytes());
  // Fewer rows, fewer bytes a row, the same bytes in another shape: none may take the block.
  for (const CQvImageFormat& f : {CQvImageFormat(1001, 2, EPixelType::Lum, EDataType::UByte),
                                  CQvImageFormat(1000, 3, EPixelType::Lum, EDataType::UByte),
                                  CQvImageFormat(3, 1001, EPixelType::Lum, EDataType::UByte)})
    EXPECT_NE(p, CQvDeviceImage2D(f).GetDevicePointer()) << f.ToString().ToCString();
  const CQvDeviceImage2D z(xFormat);
  EXPECT_TRUE(p == z.GetDevicePointer() && uPitch == z.GetDevicePitch());
  EXPECT_EQ(uBefore + 4, Count());
  // Linear blocks alike.
  CQvDeviceMMU::QvCudaFree(CQvDeviceMMU::QvCudaMalloc(2, sizeof(float)));
  CQvDeviceMMU::QvCudaFree(CQvDeviceMMU::QvCudaMalloc(2, sizeof(float)));
  EXPECT_EQ(uBefore + 5, Count());
  EXPECT_EQ(Thrown([] { CQvDeviceMMU::QvCudaMalloc(SIZE_MAX / 2, 4); }),
            "Device allocation size overflows");
}

bool MachineHasGpu() {
  int iCount = 0;
  const bool bHas = cudaGetDeviceCount(&iCount) == cudaSuccess && iCount > 0;
  cudaGetLastError();
  return bHas;
}

TEST(CudaException, CarriesIdentityCodeAndMessageFormThroughCopies) {
  try {
    QV_CUDA_CHECK(cudaErrorInvalidValue, "Error copying");
  } catch (const CQvException& e) {  // caught as the base
    std::unique_ptr<IException> pClone(e.Clone());
    const auto* p = dynamic_cast<const CQvCudaException*>(pClone.get());
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(p->GetMessageText(),
              "Error copying. 'cudaErrorInvalidValue: invalid argument (ID 1)', Device ID: " +
                  std::to_string(MachineHasGpu() ? 0 : -1));
    EXPECT_STREQ("Qv.CudaException", p->GetName());
    EXPECT_TRUE(p->HasException(CGuid("{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F}")));
    return;
  }
  FAIL() << "no exception";
}

// Runs in a fresh child process, where the backend has not been chosen yet: chooses it with
// QV_DEVICE set to the value, prints the failure text and exits with 3 if it fails, else 0.
[[noreturn]] void ChooseBackendWith(const char* szChoice) {
  setenv("QV_DEVICE", szChoice, 1);
  const std::string sThrown = QvTest::Thrown([] { Device::GetBackend(); });
  std::fprintf(stderr, "%s\n", sThrown.c_str());
  std::exit(sThrown.empty() ? 0 : 3);
}

// No skip here: CTest would show the whole executable as skipped.
TEST(DeviceBackend, AnUnknownChoiceOrCudaWithoutAGpuFailsWithOneClearError) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(ChooseBackendWith("fpga"), ::testing::ExitedWithCode(3),
              "QV_DEVICE must be 'cuda' or 'host', not 'fpga'");
  const bool bGpu = MachineHasGpu();
  EXPECT_EXIT(ChooseBackendWith("cuda"), ::testing::ExitedWithCode(bGpu ? 0 : 3),
              bGpu ? "" : "QV_DEVICE=cuda was requested but no usable CUDA device");
}

}  // namespace

// The host backend's workers: every row of every launch runs exactly once, whether launches
// come from several threads at once (one gets the workers, the others run alone) or from
// inside a launch, and with both cores busy.
TEST(HostParallelFor, EveryRowOnceFromManyThreadsAndFromInsideALaunch) {
  const QvTest::CBusyCores xLoad;
  constexpr int kRows = 97, kLaunches = 200;
  auto Launch = [](std::vector<std::atomic<int>>& xCounts, bool bNested) {
    Device::HostParallelFor(kRows, 1 << 20, [&](int y0, int y1) {
      for (int y = y0; y < y1; ++y) {
        ++xCounts[y];
        if (bNested && y == y0) {
          std::vector<std::atomic<int>> xInner(kRows);
          Device::HostParallelFor(kRows, 1 << 20, [&](int a, int b) {
            for (int i = a; i < b; ++i) ++xInner[i];
          });
          for (int i = 0; i < kRows; ++i) ASSERT_EQ(1, xInner[i].load()) << "inner row " << i;
        }
      }
    });
  };
  std::vector<std::thread> xThreads;
  for (int t = 0; t < 3; ++t)
    xThreads.emplace_back([&, t] {
      for (int k = 0; k < kLaunches; ++k) {
        std::vector<std::atomic<int>> xCounts(kRows);
        Launch(xCounts, (k + t) % 5 == 0);
        for (int y = 0; y < kRows; ++y) ASSERT_EQ(1, xCounts[y].load()) << "row " << y;
      }
    });
  for (std::thread& x : xThreads) x.join();
}

// A process forked after the workers were made has none of their threads: its launches must
// not wait for them.
TEST(HostParallelFor, AForkedChildRunsItsLaunches) {
  auto Rows = [] {
    std::atomic<int> iRows{0};
    Device::HostParallelFor(64, 1 << 20, [&](int y0, int y1) { iRows += y1 - y0; });
    return iRows.load();
  };
  ASSERT_EQ(64, Rows());
  const pid_t iChild = fork();
  if (iChild == 0) _exit(Rows() == 64 ? 0 : 1);
  int iStatus = 0;
  for (int i = 0; i < 500 && waitpid(iChild, &iStatus, WNOHANG) == 0; ++i) usleep(10000);
  if (waitpid(iChild, &iStatus, WNOHANG) == 0) {
    kill(iChild, SIGKILL);
    waitpid(iChild, &iStatus, 0);
    FAIL() << "the child's launch waited for workers it does not have";
  }
  EXPECT_TRUE(WIFEXITED(iStatus) && WEXITSTATUS(iStatus) == 0);
}
