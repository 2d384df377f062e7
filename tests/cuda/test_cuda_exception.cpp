// The device exception: identity, message form, and the one clear failure when CUDA is
// forced on a machine without a GPU.

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "QvCudaException.h"
#include "QvDevice.h"
#include "QvTestUtil.h"

using namespace Qv;

namespace {

bool MachineHasGpu() {
  int iCount = 0;
  const bool bHas = cudaGetDeviceCount(&iCount) == cudaSuccess && iCount > 0;
  cudaGetLastError();
  return bHas;
}

TEST(CudaException, CarriesIdentityCodeAndMessageFormThroughCopies) {
  const std::string sExpected =
      "Error copying. 'cudaErrorInvalidValue: invalid argument (ID 1)', Device ID: " +
      std::to_string(MachineHasGpu() ? 0 : -1);
  try {
    QV_CUDA_CHECK(cudaErrorInvalidValue, "Error copying");
    FAIL() << "no exception";
  } catch (const CQvException& e) {  // caught as the base
    std::unique_ptr<IException> pClone(e.Clone());
    const auto* p = dynamic_cast<const CQvCudaException*>(pClone.get());
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(sExpected, p->GetMessageText());
    EXPECT_EQ(1, p->GetErrorCode());
    EXPECT_STREQ("cudaErrorInvalidValue: invalid argument (ID 1)", p->GetErrorText().ToCString());
    EXPECT_STREQ("Qv.CudaException", p->GetName());
    EXPECT_TRUE(p->HasException(CGuid("{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F}")));
  }
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
  EXPECT_EXIT(ChooseBackendWith("host"), ::testing::ExitedWithCode(0), "");
  if (MachineHasGpu())
    EXPECT_EXIT(ChooseBackendWith("cuda"), ::testing::ExitedWithCode(0), "");
  else
    EXPECT_EXIT(ChooseBackendWith("cuda"), ::testing::ExitedWithCode(3),
                "QV_DEVICE=cuda was requested but no usable CUDA device");
}

}  // namespace
