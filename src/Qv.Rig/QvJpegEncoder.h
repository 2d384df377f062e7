#pragma once
// The JPEG encoder of the platform buffer: one interface, two encoders. nvJPEG encodes from the
// planes in device memory where the library can be loaded and the device runtime runs on a GPU;
// libjpeg-turbo's TurboJPEG encodes from the planes in host memory everywhere else. Both write
// a baseline JPEG of 4:2:0 chroma from the planes as they are, without a colour conversion.
#include <cuda_runtime_api.h>

#include <memory>

#include "QvNvBuffer.h"

enum class EJpegEncoder { Auto, NvJpeg, Turbo };

class NvJpegEncoder {
 public:
  virtual ~NvJpegEncoder() = default;

  // Encodes the buffer's present content at quality 0 to 100 (0 encodes as 1). size is the
  // capacity of *data on entry and the length of the stream on return. *data stays where it
  // is. Failures, a stream that would not fit included, throw CQvException.
  virtual void Encode(const NvMemory& memory, int quality, unsigned char** data,
                      unsigned long& size) = 0;
  virtual const char* GetName() const = 0;
  // Where the planes that Encode reads must lie.
  virtual ENvBufferMemory GetPlaneMemory() const = 0;
  // The capacity that is enough for any frame of this size.
  virtual unsigned long GetMaxStreamSize(int iWidth, int iHeight) const = 0;

  // Auto takes nvJPEG where it is available, else TurboJPEG. Null where the kind asked for is
  // not available; throws CQvException when it is but cannot start. nvJPEG works on hStream.
  static std::unique_ptr<NvJpegEncoder> Create(EJpegEncoder eKind, cudaStream_t hStream);
  // nvJPEG could be loaded and the device runtime runs on CUDA. Decided once per process.
  static bool IsNvJpegAvailable();
};
