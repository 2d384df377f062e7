#pragma once
// Sharing GL textures with the device. Only the CUDA backend can: on the host backend every
// call raises, and a texture fills itself from host pixels instead.
#include <cstddef>
#include <cstdint>

#include "QvCudaDefs.h"
#include "QvDevice.h"

namespace Qv {
namespace Device {

// True when this build and backend can register GL objects with CUDA.
bool HasGraphicsInterop();

// The texture uTexture of target uTarget (GL_TEXTURE_2D), registered with cudaGraphics flags.
cudaGraphicsResource_t RegisterGLImage(unsigned int uTexture, unsigned int uTarget,
                                       unsigned int uFlags, const char* szFailure);
void UnregisterGraphics(cudaGraphicsResource_t hResource, const char* szFailure);
// Map and unmap one resource on a stream. With a null szFailure an unmap ignores failures.
void MapGraphics(cudaGraphicsResource_t hResource, cudaStream_t hStream, const char* szFailure);
void UnmapGraphics(cudaGraphicsResource_t hResource, cudaStream_t hStream, const char* szFailure);
cudaArray_t GetMappedArray(cudaGraphicsResource_t hResource, unsigned int uLevel,
                           const char* szFailure);
// Rows into an array at (0, 0); with bAsync queued on the stream.
void Copy2DToArray(cudaArray_t hArray, const void* pSrc, size_t uSrcPitch, size_t uWidthBytes,
                   size_t uHeight, ECopyKind eKind, cudaStream_t hStream, bool bAsync,
                   const char* szFailure);

// Successful registrations so far, so that a test can see that a stream of frames registers
// its texture once.
uint64_t GetGraphicsRegistrationCount();

}  // namespace Device
}  // namespace Qv
