// Kernel benchmark on the default backend: the device time of single operations on 4K frames,
// each beside the floor of the bytes it must move and, where NPP was found at build time,
// beside NPP's demosaic of the same mosaic. Figures are medians of many runs.
//
// On the CUDA backend each run first holds the stream with a short spin kernel, so that the
// opening event and the launch are queued behind it and start back to back: the events then
// bracket the kernel alone, without the launch latency of the host.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "QvBenchStats.h"
#include "QvCudaCompConvolve.h"
#include "QvCudaCompDemosaic.h"
#include "QvCudaCompYUV.h"
#include "QvDevice.h"
#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "QvImage.h"

#if defined(QV_HAVE_NPP)
#include <nppi_color_conversion.h>
#endif

namespace {

using QvBench::Median;

constexpr int kWidth = 3840, kHeight = 2160;

__global__ void Spin(long long iCycles) {
  const long long t0 = clock64();
  while (clock64() - t0 < iCycles) {
  }
}

// About 100 us on a 2 GHz part: longer than the host needs to queue one operation.
void HoldStream(cudaStream_t hStream) {
  if (Qv::Device::IsCuda()) Spin<<<1, 1, 0, hStream>>>(200000);
}

// Device time of fnRun, an operation of xComp with one launch.
template <class F>
double KernelMs(Qv::CQvCudaComp& xComp, cudaStream_t hStream, int iRuns, F&& fnRun) {
  xComp.SetStream(hStream);
  std::vector<double> xTimes;
  for (int i = 0; i < iRuns + 3; ++i) {
    xComp.SetKernelTiming(true);
    HoldStream(hStream);
    fnRun();
    if (i >= 3) xTimes.push_back(xComp.GetKernelMs());
  }
  xComp.SetKernelTiming(false);
  return Median(xTimes);
}

// Device time of fnQueue, which queues work on hStream and does not wait for it.
template <class F>
double QueuedMs(cudaStream_t hStream, int iRuns, F&& fnQueue) {
  Qv::Device::CStreamTimer xTimer;
  std::vector<double> xTimes;
  for (int i = 0; i < iRuns + 3; ++i) {
    HoldStream(hStream);
    xTimer.Start(hStream);
    fnQueue();
    xTimer.Stop(hStream);
    const double dMs = xTimer.ElapsedMs();
    if (i >= 3) xTimes.push_back(dMs);
  }
  return Median(xTimes);
}

__global__ void CopyWords(const uint4* __restrict__ pSrc, uint4* __restrict__ pDst, size_t uCount) {
  for (size_t i = blockIdx.x * static_cast<size_t>(blockDim.x) + threadIdx.x; i < uCount;
       i += static_cast<size_t>(gridDim.x) * blockDim.x)
    pDst[i] = pSrc[i];
}

// Bytes a millisecond (read and written) of the faster of two device-to-device copies of a 4K
// RGBA8 image, the runtime's and a plain kernel's: the floor that the kernels are measured
// against.
double CopyBytesPerMs(cudaStream_t hStream, int iRuns) {
  const Qv::CQvImageFormat xFormat(kWidth, kHeight, Qv::EPixelType::RGBA, Qv::EDataType::UByte);
  Qv::CQvDeviceImage2D a(xFormat), b(xFormat);
  double dMs = QueuedMs(hStream, iRuns, [&] {
    Qv::Device::Copy2D(b.GetDevicePointer(), b.GetDevicePitch(), a.GetDevicePointer(),
                       a.GetDevicePitch(), xFormat.GetRowBytes(), kHeight,
                       Qv::Device::ECopyKind::DeviceToDevice, hStream, true);
  });
  if (Qv::Device::IsCuda()) {
    const size_t uCount = a.GetDevicePitch() * kHeight / sizeof(uint4);
    int iDevice = 0, iSMs = 0;
    cudaGetDevice(&iDevice);
    cudaDeviceGetAttribute(&iSMs, cudaDevAttrMultiProcessorCount, iDevice);
    const double dKernelMs = QueuedMs(hStream, iRuns, [&] {
      CopyWords<<<iSMs * 8, 256, 0, hStream>>>(static_cast<const uint4*>(a.GetDevicePointer()),
                                               static_cast<uint4*>(b.GetDevicePointer()), uCount);
    });
    dMs = std::min(dMs, dKernelMs);
  }
  return 2.0 * static_cast<double>(xFormat.GetImageBytes()) / dMs;
}

// A GRBG mosaic of a smooth scene with some texture, so that no branch sees only zeros.
Qv::CQvDeviceImage2D MakeMosaic(Qv::EDataType::ID eDataType) {
  Qv::CQvImage xHost(Qv::CQvImageFormat(kWidth, kHeight, Qv::EPixelType::BayerGR, eDataType));
  for (int y = 0; y < kHeight; ++y) {
    auto* pRow = static_cast<uint8_t*>(xHost.GetDataPtr()) + y * xHost.GetFormat().GetRowBytes();
    for (int x = 0; x < kWidth; ++x) {
      const unsigned v = (x * 7 + y * 3 + ((x ^ y) & 15) * 5) & 0xFFFF;
      if (eDataType == Qv::EDataType::UByte)
        pRow[x] = static_cast<uint8_t>(v);
      else
        reinterpret_cast<uint16_t*>(pRow)[x] = static_cast<uint16_t>(v * 37);
    }
  }
  return Qv::CQvDeviceImage2D(xHost);
}

// A 3840x2160 image of the given types: the mosaic's pattern, normalized in float images.
Qv::CQvDeviceImage2D MakePattern(Qv::EPixelType::ID ePixel, Qv::EDataType::ID eData) {
  Qv::CQvImage xHost(Qv::CQvImageFormat(kWidth, kHeight, ePixel, eData));
  const Qv::CQvImageFormat& xFormat = xHost.GetFormat();
  const uint64_t uCount = xFormat.GetImageBytes() / xFormat.GetBytesPerChannel();
  for (uint64_t i = 0; i < uCount; ++i) {
    const uint64_t x = i % kWidth, y = i / kWidth;
    const unsigned v = (x * 7 + y * 3 + ((x ^ y) & 15) * 5) & 0xFF;
    if (eData == Qv::EDataType::Float)
      static_cast<float*>(xHost.GetDataPtr())[i] = static_cast<float>(v) / 255.0f;
    else
      static_cast<uint8_t*>(xHost.GetDataPtr())[i] = static_cast<uint8_t>(v);
  }
  return Qv::CQvDeviceImage2D(xHost);
}

void PrintFigure(const char* szWhat, double dMs, double dFloorMs) {
  std::printf("%-46s %9.1f us (byte floor %.1f us, ratio %.2f)\n", szWhat, dMs * 1000.0,
              dFloorMs * 1000.0, dFloorMs > 0 ? dMs / dFloorMs : 0.0);
}

#if defined(QV_HAVE_NPP)
NppStreamContext NppContext(cudaStream_t hStream) {
  NppStreamContext x;
  std::memset(&x, 0, sizeof(x));
  x.hStream = hStream;
  cudaGetDevice(&x.nCudaDeviceId);
  int iShared = 0;
  cudaDeviceGetAttribute(&x.nMultiProcessorCount, cudaDevAttrMultiProcessorCount, x.nCudaDeviceId);
  cudaDeviceGetAttribute(&x.nMaxThreadsPerMultiProcessor, cudaDevAttrMaxThreadsPerMultiProcessor,
                         x.nCudaDeviceId);
  cudaDeviceGetAttribute(&x.nMaxThreadsPerBlock, cudaDevAttrMaxThreadsPerBlock, x.nCudaDeviceId);
  cudaDeviceGetAttribute(&iShared, cudaDevAttrMaxSharedMemoryPerBlock, x.nCudaDeviceId);
  x.nSharedMemPerBlock = static_cast<size_t>(iShared);
  cudaDeviceGetAttribute(&x.nCudaDevAttrComputeCapabilityMajor, cudaDevAttrComputeCapabilityMajor,
                         x.nCudaDeviceId);
  cudaDeviceGetAttribute(&x.nCudaDevAttrComputeCapabilityMinor, cudaDevAttrComputeCapabilityMinor,
                         x.nCudaDeviceId);
  cudaStreamGetFlags(hStream, &x.nStreamFlags);
  return x;
}

// NPP's demosaic of the same GRBG mosaic into RGBA8 (alpha 255); 0 when NPP refuses.
double NppDebayerMs(const Qv::CQvDeviceImage2D& xMosaic, Qv::CQvDeviceImage2D& xRgba,
                    cudaStream_t hStream, int iRuns) {
  const NppStreamContext xContext = NppContext(hStream);
  const NppiSize xSize{kWidth, kHeight};
  const NppiRect xRoi{0, 0, kWidth, kHeight};
  NppStatus eStatus = NPP_SUCCESS;
  const double dMs = QueuedMs(hStream, iRuns, [&] {
    const NppStatus e = nppiCFAToRGBA_8u_C1AC4R_Ctx(
        static_cast<const Npp8u*>(xMosaic.GetDevicePointer()),
        static_cast<int>(xMosaic.GetDevicePitch()), xSize, xRoi,
        static_cast<Npp8u*>(xRgba.GetDevicePointer()), static_cast<int>(xRgba.GetDevicePitch()),
        NPPI_BAYER_GRBG, NPPI_INTER_UNDEFINED, 255, xContext);
    if (e != NPP_SUCCESS) eStatus = e;
  });
  if (eStatus != NPP_SUCCESS) {
    std::printf("npp: nppiCFAToRGBA_8u_C1AC4R_Ctx failed with status %d\n",
                static_cast<int>(eStatus));
    return 0.0;
  }
  return dMs;
}
#endif

void Run(bool bCuda) {
  const int iRuns = bCuda ? 200 : 3;
  cudaStream_t hStream = Qv::Device::CreateStream();
  const double dBytesPerMs = CopyBytesPerMs(hStream, iRuns);
  std::printf("device-to-device copy, 4K RGBA8               %9.1f GB/s (read + write)\n",
              dBytesPerMs / 1e6);

  // Demosaic, 8 and 16 bit.
  Qv::CQvDeviceImage2D xMosaic = MakeMosaic(Qv::EDataType::UByte), xRgba;
  Qv::CQvCudaCompDemosaic xDemosaic;
  const float fRed = 1.4285715f, fGreen = 1.0f, fBlue = 1.1363636f;
  const double dDebayer = KernelMs(xDemosaic, hStream, iRuns,
                                   [&] { xDemosaic.Debayer(xRgba, xMosaic, fRed, fGreen, fBlue); });
  const double dDebayerFloor =
      (xMosaic.GetFormat().GetImageBytes() + xRgba.GetFormat().GetImageBytes()) / dBytesPerMs;
  PrintFigure("Debayer GRBG8 3840x2160 to RGBA8", dDebayer, dDebayerFloor);
#if defined(QV_HAVE_NPP)
  {
    Qv::CQvDeviceImage2D xNppRgba(xRgba.GetFormat());
    const double dNpp = NppDebayerMs(xMosaic, xNppRgba, hStream, iRuns);
    PrintFigure("nppiCFAToRGBA_8u_C1AC4R, the same mosaic", dNpp, dDebayerFloor);
    if (dNpp > 0)
      std::printf("Debayer against NPP                            %9.2f x NPP's time\n",
                  dDebayer / dNpp);
  }
#else
  std::printf("NPP comparison not built (NPP's headers were not found)\n");
#endif
  {
    Qv::CQvDeviceImage2D xMosaic16 = MakeMosaic(Qv::EDataType::UShort), xRgba16;
    const double dMs = KernelMs(xDemosaic, hStream, iRuns, [&] {
      xDemosaic.Debayer(xRgba16, xMosaic16, fRed, fGreen, fBlue);
    });
    PrintFigure("Debayer GRBG16 3840x2160 to RGBA16", dMs,
                (xMosaic16.GetFormat().GetImageBytes() + xRgba16.GetFormat().GetImageBytes()) /
                    dBytesPerMs);
  }

  // Shrink to 3840x1784, one sample a pixel: it reads 1784 of the 2160 rows.
  Qv::CQvCudaCompConvolve xConvolve;
  Qv::CQvDeviceImage2D xScaled;
  const int iTrgH = 1784;
  const double dShrink = KernelMs(xConvolve, hStream, iRuns,
                                  [&] { xConvolve.Shrink(xScaled, xRgba, kWidth, iTrgH, true); });
  PrintFigure("Shrink RGBA8 to 3840x1784, one sample", dShrink,
              2.0 * static_cast<double>(xScaled.GetFormat().GetImageBytes()) / dBytesPerMs);

  // RGBA8 to stacked I420: reads 4 and writes 1.5 bytes a pixel.
  Qv::CQvCudaCompYUV xYuv;
  Qv::CQvDeviceImage2D xI420;
  const double dYuv = KernelMs(xYuv, hStream, iRuns, [&] { xYuv.Convert(xI420, xRgba); });
  PrintFigure(
      "YUV Convert RGBA8 to I420", dYuv,
      (xRgba.GetFormat().GetImageBytes() + xI420.GetFormat().GetImageBytes()) / dBytesPerMs);

  // Mix of two RGBA8 frames: reads 8 and writes 4 bytes a pixel.
  Qv::CQvDeviceImage2D xRgba2, xMixed;
  xDemosaic.Debayer(xRgba2, xMosaic, 1.0f, 1.0f, 1.0f);
  const double dMix = KernelMs(xConvolve, hStream, iRuns,
                               [&] { xConvolve.Mix(xMixed, xRgba, xRgba2, 0.7f, true); });
  PrintFigure("Mix RGBA8 with RGBA8, black transparent", dMix,
              3.0 * static_cast<double>(xRgba.GetFormat().GetImageBytes()) / dBytesPerMs);

  // Sobel into L_f: reads 1 (L8) or 4 (L_f) bytes and writes 4 bytes a pixel.
  Qv::CQvDeviceImage2D xGray8 = MakePattern(Qv::EPixelType::Lum, Qv::EDataType::UByte);
  Qv::CQvDeviceImage2D xGrayF = MakePattern(Qv::EPixelType::Lum, Qv::EDataType::Float), xEdges;
  for (const Qv::CQvDeviceImage2D* pxGray : {&xGray8, &xGrayF}) {
    const double dMs =
        KernelMs(xConvolve, hStream, iRuns, [&] { xConvolve.Sobel(xEdges, *pxGray); });
    PrintFigure(pxGray == &xGray8 ? "Sobel L8 to L_f" : "Sobel L_f to L_f", dMs,
                static_cast<double>(pxGray->GetFormat().GetImageBytes() +
                                    xEdges.GetFormat().GetImageBytes()) /
                    dBytesPerMs);
  }

  // Minimum and maximum of an L_f frame: its read floor.
  float fMin = 0.0f, fMax = 0.0f;
  const double dMinMax =
      KernelMs(xConvolve, hStream, iRuns, [&] { xConvolve.GetImageMinMax(fMin, fMax, 0, xGrayF); });
  PrintFigure("GetImageMinMax L_f", dMinMax,
              static_cast<double>(xGrayF.GetFormat().GetImageBytes()) / dBytesPerMs);
  Qv::Device::DestroyStream(hStream);
}

}  // namespace

int main() {
  try {
    const bool bCuda = Qv::Device::IsCuda();
    std::printf("qvbench-kernels: backend %s, %s, frames of %dx%d\n", Qv::Device::GetBackendName(),
                bCuda ? "event times" : "wall times", kWidth, kHeight);
    Run(bCuda);
  } catch (const Qv::IException& e) {
    std::fprintf(stderr, "qvbench-kernels: %s\n", e.GetMessageText());
    return 1;
  }
  return 0;
}
