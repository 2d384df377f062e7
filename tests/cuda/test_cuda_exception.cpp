// The device exception: identity, message form, and the one clear failure when CUDA is
// forced on a machine without a GPU.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <regex>

#include "QvCudaException.h"
#include "QvDevice.h"

using namespace Qv;

namespace {

bool MachineHasGpu() {
  int iCount = 0;
  const bool bHas = cudaGetDeviceCount(&iCount) == cudaSuccess && iCount > 0;
  cudaGetLastError();
  return bHas;
}

TEST(CudaException, CarriesIdentityCodeAndMessageForm) {
  const CQvCudaException e =
      CQvCudaException::CreateFirst("Error copying", "file.cu", "Copy", 42, cudaErrorInvalidValue);
  EXPECT_EQ(CGuid("{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F}"), e.GetGUID());
  EXPECT_EQ(CGuid("{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F}"), CQvCudaException::GetTypeGUID());
  EXPECT_STREQ("Qv.CudaException", e.GetName());
  EXPECT_STREQ("Qv.CudaException", CQvCudaException::GetTypeName());
  EXPECT_EQ(1, e.GetErrorCode());
  EXPECT_STREQ("cudaErrorInvalidValue: invalid argument (ID 1)", e.GetErrorText().ToCString());
  const int iDevice = MachineHasGpu() ? 0 : -1;
  const std::string sExpected =
      "Error copying. 'cudaErrorInvalidValue: invalid argument (ID 1)', "
      "Device ID: " +
      std::to_string(iDevice);
  EXPECT_EQ(sExpected, e.GetMessageText());
  EXPECT_EQ(42, e.GetLine());
  EXPECT_TRUE(e.HasException(CQvCudaException::GetTypeGUID()));
}

TEST(CudaException, CloneKeepsEveryField) {
  const CQvCudaException e =
      CQvCudaException::CreateFirst("Error", "f", "g", 1, cudaErrorMemoryAllocation);
  std::unique_ptr<IException> pxClone(e.Clone());
  auto* pxCuda = dynamic_cast<CQvCudaException*>(pxClone.get());
  ASSERT_NE(nullptr, pxCuda);
  EXPECT_EQ(e.GetErrorCode(), pxCuda->GetErrorCode());
  EXPECT_STREQ(e.GetMessageText(), pxCuda->GetMessageText());
  EXPECT_EQ(e.GetDeviceID(), pxCuda->GetDeviceID());
}

TEST(CudaException, CaughtAsTheBaseException) {
  try {
    QV_CUDA_CHECK(cudaErrorInvalidValue, "Error binding");
    FAIL();
  } catch (const CQvException& e) {
    EXPECT_EQ(0, std::string(e.GetMessageText()).rfind("Error binding. '", 0));
  }
}

// Runs in a fresh child process, where the backend has not been chosen yet: chooses it with
// QV_DEVICE set to the value, prints the failure text and exits with 3 if it fails.
[[noreturn]] void ChooseBackendWith(const char* szChoice) {
  setenv("QV_DEVICE", szChoice, 1);
  try {
    Device::GetBackend();
  } catch (const CQvException& e) {
    std::fprintf(stderr, "%s\n", e.GetMessageText());
    std::exit(3);
  }
  std::exit(0);
}

TEST(DeviceBackend, ForcingCudaWithoutGpuGivesOneClearError) {
  if (MachineHasGpu()) GTEST_SKIP() << "this machine has a GPU";
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(ChooseBackendWith("cuda"), ::testing::ExitedWithCode(3),
              "QV_DEVICE=cuda was requested but no usable CUDA device");
}

TEST(DeviceBackend, UnknownChoiceIsRefused) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(ChooseBackendWith("fpga"), ::testing::ExitedWithCode(3),
              "QV_DEVICE must be 'cuda' or 'host', not 'fpga'");
}

}  // namespace
