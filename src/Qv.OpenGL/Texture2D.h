#pragma once
// A GL 2D texture whose storage the device writes directly: a device image goes into it by
// one device-to-device copy into the mapped texture, and the mip chain is computed on the
// device. Where the device can't share GL storage (the host backend, or a GL that isn't the
// CUDA device's), the same class uploads host pixels with glTexSubImage2D. The GL context
// must be current on the calling thread for every call.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "QvCudaDefs.h"
#include "QvDeviceImage2D.h"
#include "QvImage.h"
#include "QvImageFormat.h"

namespace Qv {
namespace OpenGL {

class CTexture2D {
 public:
  // The deepest mip level that is built.
  static constexpr int kMaxMipLevel = 9;

  CTexture2D() = default;
  ~CTexture2D();
  CTexture2D(const CTexture2D&) = delete;
  CTexture2D& operator=(const CTexture2D&) = delete;

  // A GL name and, where the device shares it, its registration.
  bool IsValid() const;
  // Unregisters, deletes an owned texture and forgets the format.
  void Destroy();
  // Takes over a texture made elsewhere; it is never deleted here.
  void CreateExtern(unsigned int id);
  // Maps the texture for the device and gives level 0; UnmapCudaArray must follow.
  cudaArray_t GetMappedCudaArray();
  void UnmapCudaArray();

  // GL internal format and pixel transfer format of an image format; CQvException for
  // combinations that GL has no format for.
  static unsigned int ToGlInternalFormat(const CQvImageFormat& xFormat, bool normalized);
  static unsigned int ToGlInternalType(const CQvImageFormat& xFormat, bool normalized);

  void Set(const CQvDeviceImage2D& image, bool mipmap, bool normalized, cudaStream_t stream);
  void Set(const CQvImage& image, bool mipmap, bool normalized);
  // The storage is rebuilt only when the format, the mipmap choice or normalization changes.
  // A pitch of 0 means packed rows.
  void _Set(const CQvImageFormat& format, const void* data, bool isDevice, size_t pitch,
            bool mipmap, bool normalized, cudaStream_t stream);

  unsigned int GetId() const { return uId; }
  const CQvImageFormat& GetFormat() const { return xFormat; }
  bool IsMipMapped() const { return bMipMapped; }
  // Levels of the present storage: 1 without mipmapping, else down to the first empty level.
  int GetLevelCount() const { return iLevels; }
  // True when the device writes the storage itself; false when frames come through the host.
  bool IsShared() const { return pxResource != nullptr; }

 private:
  void BuildStorage(const CQvImageFormat& format, bool mipmap, bool normalized);
  void UploadLevel(int iLevel, const CQvImageFormat& format, const void* data, bool isDevice,
                   size_t pitch, cudaStream_t stream);
  void BuildMipChain(const CQvImageFormat& format, const void* data, bool isDevice, size_t pitch,
                     cudaStream_t stream);

  cudaGraphicsResource_t pxResource = nullptr;
  unsigned int uId = 0;
  bool bOwned = false;
  bool bMipMapped = false;
  CQvImageFormat xFormat;
  bool bNormalized = true;
  // Filled by glTexSubImage2D instead of the device.
  bool bHostUpload = false;
  // Reported once: frames go through host memory.
  bool bToldHostUpload = false;
  int iLevels = 0;
  std::vector<uint8_t> xStaging;
};

}  // namespace OpenGL
}  // namespace Qv
