#include "QvJpegEncoder.h"

#include <dlfcn.h>
#include <turbojpeg.h>

#include <cstdint>

#include "QvDevice.h"
#include "QvException.h"

namespace {

// Worst case of a baseline 4:2:0 stream: 16 x 16 blocks of 16-bit coefficients, as
// libjpeg-turbo reckons it, and room for the headers.
unsigned long MaxStreamSize(int iWidth, int iHeight) {
  const auto uPadW = static_cast<unsigned long>((iWidth + 15) / 16 * 16);
  const auto uPadH = static_cast<unsigned long>((iHeight + 15) / 16 * 16);
  return uPadW * uPadH * 3 + 2048;
}

int EncoderQuality(int iQuality) {
  return iQuality < 1 ? 1 : (iQuality > 100 ? 100 : iQuality);
}

void CheckCapacity(unsigned long uCapacity, unsigned long uNeeded, const char* szEncoder) {
  if (uCapacity >= uNeeded) return;
  Qv::CQvString sText(szEncoder);
  sText << ": the JPEG output area of " << uCapacity << " bytes is smaller than the " << uNeeded
        << " bytes that the frame may need";
  QV_THROW(sText.ToCString());
}

// libjpeg-turbo from the host view of the planes; with the device runtime on CUDA the
// conversion wrote them through their mapped addresses.
class CTurboJpegEncoder : public NvJpegEncoder {
 public:
  CTurboJpegEncoder() : m_hCompressor(tjInitCompress()) {
    if (!m_hCompressor) QV_THROW("TurboJPEG: cannot start a compressor");
  }
  ~CTurboJpegEncoder() override { tjDestroy(m_hCompressor); }
  CTurboJpegEncoder(const CTurboJpegEncoder&) = delete;
  CTurboJpegEncoder& operator=(const CTurboJpegEncoder&) = delete;

  void Encode(const NvMemory& memory, int quality, unsigned char** data,
              unsigned long& size) override {
    const _NvBufferParams& xParams = memory.xParams;
    if (!memory.pHost || xParams.num_planes != 3)
      QV_THROW("TurboJPEG: the buffer has no planes in host memory");
    if (!data || !*data) QV_THROW("TurboJPEG: no output area");
    const int iWidth = static_cast<int>(xParams.width[0]);
    const int iHeight = static_cast<int>(xParams.height[0]);
    // With TJFLAG_NOREALLOC the library takes the area to hold the worst case.
    CheckCapacity(size, tjBufSize(iWidth, iHeight, TJSAMP_420), GetName());
    const unsigned char* pPlanes[3];
    int iStrides[3];
    for (int i = 0; i < 3; ++i) {
      pPlanes[i] = memory.pHost + xParams.offset[i];
      iStrides[i] = static_cast<int>(xParams.pitch[i]);
    }
    unsigned long uLength = size;
    if (tjCompressFromYUVPlanes(m_hCompressor, pPlanes, iWidth, iStrides, iHeight, TJSAMP_420, data,
                                &uLength, EncoderQuality(quality), TJFLAG_NOREALLOC) != 0) {
      Qv::CQvString sText("TurboJPEG: ");
      sText << tjGetErrorStr2(m_hCompressor);
      QV_THROW(sText.ToCString());
    }
    size = uLength;
  }
  const char* GetName() const override { return "TurboJPEG"; }
  ENvBufferMemory GetPlaneMemory() const override { return ENvBufferMemory::Mapped; }
  unsigned long GetMaxStreamSize(int iWidth, int iHeight) const override {
    return tjBufSize(iWidth, iHeight, TJSAMP_420);
  }

 private:
  tjhandle m_hCompressor;
};

// nvJPEG is loaded at run time: the machines that build the plugin have no nvJPEG headers, so
// the few types and entry points used here are declared from the library's documented ABI.
namespace NvJpegAbi {
struct SHandle;
struct SEncoderState;
struct SEncoderParams;
typedef SHandle* nvjpegHandle_t;
typedef SEncoderState* nvjpegEncoderState_t;
typedef SEncoderParams* nvjpegEncoderParams_t;
typedef int nvjpegStatus_t;  // an enum of the library; 0 is success
constexpr nvjpegStatus_t kSuccess = 0;
constexpr int kChroma420 = 2;  // NVJPEG_CSS_420
struct nvjpegImage_t {
  unsigned char* channel[4];
  size_t pitch[4];
};
}  // namespace NvJpegAbi

using namespace NvJpegAbi;

struct SNvJpegLibrary {
  nvjpegStatus_t (*CreateSimple)(nvjpegHandle_t*);
  nvjpegStatus_t (*Destroy)(nvjpegHandle_t);
  nvjpegStatus_t (*EncoderStateCreate)(nvjpegHandle_t, nvjpegEncoderState_t*, cudaStream_t);
  nvjpegStatus_t (*EncoderStateDestroy)(nvjpegEncoderState_t);
  nvjpegStatus_t (*EncoderParamsCreate)(nvjpegHandle_t, nvjpegEncoderParams_t*, cudaStream_t);
  nvjpegStatus_t (*EncoderParamsDestroy)(nvjpegEncoderParams_t);
  nvjpegStatus_t (*EncoderParamsSetQuality)(nvjpegEncoderParams_t, int, cudaStream_t);
  nvjpegStatus_t (*EncoderParamsSetOptimizedHuffman)(nvjpegEncoderParams_t, int, cudaStream_t);
  nvjpegStatus_t (*EncoderParamsSetSamplingFactors)(nvjpegEncoderParams_t, int, cudaStream_t);
  nvjpegStatus_t (*EncodeYUV)(nvjpegHandle_t, nvjpegEncoderState_t, const nvjpegEncoderParams_t,
                              const nvjpegImage_t*, int, int, int, cudaStream_t);
  nvjpegStatus_t (*EncodeRetrieveBitstream)(nvjpegHandle_t, nvjpegEncoderState_t, unsigned char*,
                                            size_t*, cudaStream_t);
};

template <class TFunc>
bool Resolve(void* pLibrary, const char* szName, TFunc& fnTarget) {
  fnTarget = reinterpret_cast<TFunc>(dlsym(pLibrary, szName));
  return fnTarget != nullptr;
}

// Loaded once and kept for the life of the process; null where no library with all the entry
// points is found.
const SNvJpegLibrary* NvJpegLibrary() {
  static const SNvJpegLibrary* const s_pxLibrary = []() -> const SNvJpegLibrary* {
    void* pLibrary = nullptr;
    for (const char* szName : {"libnvjpeg.so.13", "libnvjpeg.so.12", "libnvjpeg.so"})
      if ((pLibrary = dlopen(szName, RTLD_NOW | RTLD_LOCAL)) != nullptr) break;
    if (!pLibrary) return nullptr;
    static SNvJpegLibrary s_xLibrary;
    SNvJpegLibrary& x = s_xLibrary;
    const bool bAll =
        Resolve(pLibrary, "nvjpegCreateSimple", x.CreateSimple) &&
        Resolve(pLibrary, "nvjpegDestroy", x.Destroy) &&
        Resolve(pLibrary, "nvjpegEncoderStateCreate", x.EncoderStateCreate) &&
        Resolve(pLibrary, "nvjpegEncoderStateDestroy", x.EncoderStateDestroy) &&
        Resolve(pLibrary, "nvjpegEncoderParamsCreate", x.EncoderParamsCreate) &&
        Resolve(pLibrary, "nvjpegEncoderParamsDestroy", x.EncoderParamsDestroy) &&
        Resolve(pLibrary, "nvjpegEncoderParamsSetQuality", x.EncoderParamsSetQuality) &&
        Resolve(pLibrary, "nvjpegEncoderParamsSetOptimizedHuffman",
                x.EncoderParamsSetOptimizedHuffman) &&
        Resolve(pLibrary, "nvjpegEncoderParamsSetSamplingFactors",
                x.EncoderParamsSetSamplingFactors) &&
        Resolve(pLibrary, "nvjpegEncodeYUV", x.EncodeYUV) &&
        Resolve(pLibrary, "nvjpegEncodeRetrieveBitstream", x.EncodeRetrieveBitstream);
    if (!bAll) {
      dlclose(pLibrary);
      return nullptr;
    }
    return &x;
  }();
  return s_pxLibrary;
}

void CheckNvJpeg(nvjpegStatus_t eStatus, const char* szStep) {
  if (eStatus == kSuccess) return;
  Qv::CQvString sText("nvJPEG: ");
  sText << szStep << " failed with status " << eStatus;
  QV_THROW(sText.ToCString());
}

// nvJPEG from the device view of the planes, on the stream of the conversion; only the
// finished stream comes to the host.
class CNvJpegLibEncoder : public NvJpegEncoder {
 public:
  CNvJpegLibEncoder(const SNvJpegLibrary& xLibrary, cudaStream_t hStream)
      : m_xLib(xLibrary), m_hStream(hStream) {
    try {
      CheckNvJpeg(m_xLib.CreateSimple(&m_hHandle), "nvjpegCreateSimple");
      CheckNvJpeg(m_xLib.EncoderStateCreate(m_hHandle, &m_hState, m_hStream),
                  "nvjpegEncoderStateCreate");
      CheckNvJpeg(m_xLib.EncoderParamsCreate(m_hHandle, &m_hParams, m_hStream),
                  "nvjpegEncoderParamsCreate");
      CheckNvJpeg(m_xLib.EncoderParamsSetSamplingFactors(m_hParams, kChroma420, m_hStream),
                  "nvjpegEncoderParamsSetSamplingFactors");
      // Standard tables: the second pass over the coefficients costs more than it saves.
      CheckNvJpeg(m_xLib.EncoderParamsSetOptimizedHuffman(m_hParams, 0, m_hStream),
                  "nvjpegEncoderParamsSetOptimizedHuffman");
    } catch (...) {
      Release();
      throw;
    }
  }
  ~CNvJpegLibEncoder() override { Release(); }
  CNvJpegLibEncoder(const CNvJpegLibEncoder&) = delete;
  CNvJpegLibEncoder& operator=(const CNvJpegLibEncoder&) = delete;

  void Encode(const NvMemory& memory, int quality, unsigned char** data,
              unsigned long& size) override {
    const _NvBufferParams& xParams = memory.xParams;
    if (!memory.pDevice || xParams.num_planes != 3)
      QV_THROW("nvJPEG: the buffer has no planes on the device");
    if (!data || !*data) QV_THROW("nvJPEG: no output area");
    const int iQuality = EncoderQuality(quality);
    if (iQuality != m_iQuality) {
      CheckNvJpeg(m_xLib.EncoderParamsSetQuality(m_hParams, iQuality, m_hStream),
                  "nvjpegEncoderParamsSetQuality");
      m_iQuality = iQuality;
    }
    nvjpegImage_t xImage{};
    for (int i = 0; i < 3; ++i) {
      xImage.channel[i] = memory.pDevice + xParams.offset[i];
      xImage.pitch[i] = xParams.pitch[i];
    }
    CheckNvJpeg(m_xLib.EncodeYUV(m_hHandle, m_hState, m_hParams, &xImage, kChroma420,
                                 static_cast<int>(xParams.width[0]),
                                 static_cast<int>(xParams.height[0]), m_hStream),
                "nvjpegEncodeYUV");
    size_t uLength = 0;
    CheckNvJpeg(m_xLib.EncodeRetrieveBitstream(m_hHandle, m_hState, nullptr, &uLength, m_hStream),
                "nvjpegEncodeRetrieveBitstream");
    Qv::Device::SynchronizeStream(m_hStream);
    CheckCapacity(size, static_cast<unsigned long>(uLength), GetName());
    CheckNvJpeg(m_xLib.EncodeRetrieveBitstream(m_hHandle, m_hState, *data, &uLength, m_hStream),
                "nvjpegEncodeRetrieveBitstream");
    Qv::Device::SynchronizeStream(m_hStream);
    size = static_cast<unsigned long>(uLength);
  }
  const char* GetName() const override { return "nvJPEG"; }
  ENvBufferMemory GetPlaneMemory() const override { return ENvBufferMemory::Device; }
  unsigned long GetMaxStreamSize(int iWidth, int iHeight) const override {
    return MaxStreamSize(iWidth, iHeight);
  }

 private:
  void Release() {
    if (m_hParams) m_xLib.EncoderParamsDestroy(m_hParams);
    if (m_hState) m_xLib.EncoderStateDestroy(m_hState);
    if (m_hHandle) m_xLib.Destroy(m_hHandle);
    m_hParams = nullptr;
    m_hState = nullptr;
    m_hHandle = nullptr;
  }

  const SNvJpegLibrary& m_xLib;
  cudaStream_t m_hStream;
  nvjpegHandle_t m_hHandle = nullptr;
  nvjpegEncoderState_t m_hState = nullptr;
  nvjpegEncoderParams_t m_hParams = nullptr;
  int m_iQuality = -1;
};

}  // namespace

bool NvJpegEncoder::IsNvJpegAvailable() {
  try {
    if (!Qv::Device::IsCuda()) return false;
  } catch (const Qv::IException&) {
    return false;
  }
  return NvJpegLibrary() != nullptr;
}

std::unique_ptr<NvJpegEncoder> NvJpegEncoder::Create(EJpegEncoder eKind, cudaStream_t hStream) {
  if (eKind != EJpegEncoder::Turbo && IsNvJpegAvailable())
    return std::make_unique<CNvJpegLibEncoder>(*NvJpegLibrary(), hStream);
  if (eKind == EJpegEncoder::NvJpeg) return nullptr;
  return std::make_unique<CTurboJpegEncoder>();
}
