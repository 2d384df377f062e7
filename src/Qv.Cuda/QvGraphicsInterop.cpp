#include "QvGraphicsInterop.h"

#include <atomic>

#include "QvCudaException.h"

// The interop header needs the GL headers; a build without them has no interop.
#if __has_include(<GL/gl.h>)
#include <cuda_gl_interop.h>
#define QV_HAVE_GL_INTEROP 1
#else
#define QV_HAVE_GL_INTEROP 0
#endif

namespace Qv {
namespace Device {
namespace {

std::atomic<uint64_t> g_uRegistrations{0};

void RequireInterop() {
  if (!QV_HAVE_GL_INTEROP) QV_THROW("This build has no CUDA-GL interop (no GL headers)");
  if (!IsCuda()) QV_THROW("CUDA-GL interop needs the CUDA backend");
}

}  // namespace

bool HasGraphicsInterop() {
  return QV_HAVE_GL_INTEROP && IsCuda();
}

cudaGraphicsResource_t RegisterGLImage(unsigned int uTexture, unsigned int uTarget,
                                       unsigned int uFlags, const char* szFailure) {
  RequireInterop();
  cudaGraphicsResource_t hResource = nullptr;
#if QV_HAVE_GL_INTEROP
  QV_CUDA_CHECK(cudaGraphicsGLRegisterImage(&hResource, uTexture, uTarget, uFlags), szFailure);
#else
  (void)uTexture, (void)uTarget, (void)uFlags, (void)szFailure;
#endif
  ++g_uRegistrations;
  return hResource;
}

void UnregisterGraphics(cudaGraphicsResource_t hResource, const char* szFailure) {
  RequireInterop();
  QV_CUDA_CHECK(cudaGraphicsUnregisterResource(hResource), szFailure);
}

void MapGraphics(cudaGraphicsResource_t hResource, cudaStream_t hStream, const char* szFailure) {
  RequireInterop();
  QV_CUDA_CHECK(cudaGraphicsMapResources(1, &hResource, hStream), szFailure);
}

void UnmapGraphics(cudaGraphicsResource_t hResource, cudaStream_t hStream, const char* szFailure) {
  RequireInterop();
  const cudaError_t eResult = cudaGraphicsUnmapResources(1, &hResource, hStream);
  if (!szFailure) {
    cudaGetLastError();
    return;
  }
  QV_CUDA_CHECK(eResult, szFailure);
}

cudaArray_t GetMappedArray(cudaGraphicsResource_t hResource, unsigned int uLevel,
                           const char* szFailure) {
  RequireInterop();
  cudaArray_t hArray = nullptr;
  QV_CUDA_CHECK(cudaGraphicsSubResourceGetMappedArray(&hArray, hResource, 0, uLevel), szFailure);
  return hArray;
}

void Copy2DToArray(cudaArray_t hArray, const void* pSrc, size_t uSrcPitch, size_t uWidthBytes,
                   size_t uHeight, ECopyKind eKind, cudaStream_t hStream, bool bAsync,
                   const char* szFailure) {
  RequireInterop();
  if (bAsync)
    QV_CUDA_CHECK(cudaMemcpy2DToArrayAsync(hArray, 0, 0, pSrc, uSrcPitch, uWidthBytes, uHeight,
                                           ToCudaKind(eKind), hStream),
                  szFailure);
  else {
    // A device-to-device copy may still run when the call returns, on the default stream that
    // the non-blocking streams don't wait for: complete it here.
    QV_CUDA_CHECK(
        cudaMemcpy2DToArray(hArray, 0, 0, pSrc, uSrcPitch, uWidthBytes, uHeight, ToCudaKind(eKind)),
        szFailure);
    QV_CUDA_CHECK(cudaStreamSynchronize(nullptr), szFailure);
  }
}

uint64_t GetGraphicsRegistrationCount() {
  return g_uRegistrations.load();
}

}  // namespace Device
}  // namespace Qv
