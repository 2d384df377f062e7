#pragma once
// The platform video buffer that the JPEG sink converts into and its encoder reads: one YUV
// 4:2:0 image of three 8-bit planes that device code writes in place. A board shares its memory
// between CPU and GPU; here the planes lie where the encoder reads them, pinned host memory
// that the device writes through mapped addresses (plain memory on the host backend) for an
// encoder on the CPU, device memory for an encoder on the device, so that there the frame
// never crosses to the host.
#include <cuda_runtime_api.h>

#include <cstddef>
#include <cstdint>

#include "QvDeviceImage2D.h"

enum NvBufferColorFormat {
  NvBufferColorFormat_YUV420 = 0,  // three planes: Y, then U and V at half width and height
};

enum class ENvBufferMemory { Mapped, Device };

// Plane geometry of a buffer, in bytes from the start of its one block.
struct _NvBufferParams {
  uint32_t num_planes;
  uint32_t width[3];
  uint32_t height[3];
  uint32_t pitch[3];
  uint32_t offset[3];
  NvBufferColorFormat pixel_format;
};

// A buffer as a value record. pHost is the CPU's view of the block (null for device memory),
// pDevice the device's.
struct NvMemory {
  ENvBufferMemory eMemory;
  uint8_t* pHost;
  uint8_t* pDevice;
  size_t uBytes;
  _NvBufferParams xParams;
};

// The device-visible planes of a mapped buffer, valid until the unmap.
struct NvMappedMemory {
  uint8_t* pPlane[3];
  size_t uPitch[3];
  int iWidth[3];
  int iHeight[3];
};

// Creates, maps and releases buffers. Plain data, so that an element can hold it by value.
class TegraBufferShim {
 public:
  void Initialize();
  // Throws CQvException for another format, a size of less than 2 x 2, or no memory.
  NvMemory CreateNvBuffer(NvBufferColorFormat eFormat, int iWidth, int iHeight,
                          ENvBufferMemory eMemory = ENvBufferMemory::Mapped);
  NvMappedMemory MapNvBuffer(const NvMemory& xMemory);
  // Makes y, u and v Lum views of the planes that do not own them.
  void GetMoniker(const NvMappedMemory& xMapped, Qv::CQvDeviceImage2D& y, Qv::CQvDeviceImage2D& u,
                  Qv::CQvDeviceImage2D& v);
  // Both clear the record; releasing an empty record does nothing.
  void UnmapNvBuffer(NvMappedMemory& xMapped);
  void DestroyNvBuffer(NvMemory& xMemory);
  void Destroy();
  bool IsInitialized() const { return m_bInitialized; }

 private:
  bool m_bInitialized = false;
};

// Copies the rows of an image into plane 0 of a buffer given by its file: params.pitch[0] bytes
// apart from the start of the file. The result is that of the copy; cudaErrorInvalidValue
// where the image, the pitch or the file cannot take it, without touching the file.
cudaError_t CopyYUVToNvBuffer(Qv::CQvDeviceImage2D* image, int fd, _NvBufferParams& params);
