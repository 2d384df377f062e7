#pragma once
#include "QvCudaComp.h"
#include "QvDeviceImage2D.h"
#include "QvImageFormat.h"

namespace Qv {

// Flat-field correction against a gray reference, and the expansion of 10 and 12 bit sensor
// data to full-range 16 bit.
class CQvCudaCompNormalize : public CQvCudaComp {
 public:
  CQvCudaCompNormalize();
  ~CQvCudaCompNormalize() override;

  // Divides the source by the gray image pixel by pixel, channel by channel (alpha included),
  // and stores the quotient in the source's format with eDataType (UByte or UShort). A zero
  // gray pixel stores full scale. The two images need the same pixel count, not the same
  // shape. Lum and RGBA sources; the target is created here.
  void Normalize(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource,
                 const CQvDeviceImage2D& xGray, EDataType::ID eDataType);
  // Only changes the bit depth.
  void Normalize(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource,
                 EDataType::ID eDataType);

  // Host image of data type Custom_10in16_LSB, Custom_12in16_LSB or Custom_12Packed (two
  // pixels in three bytes, (3 n + 1) / 2 bytes for n pixels) with one channel, into a UShort
  // device image of the same size and pixel type.
  void ConvertCustomDataType(CQvDeviceImage2D& xTarget, const IImage& xSource);

  // Bytes that a Custom_12Packed image of the format occupies: the last pixel of an odd count
  // still has both its bytes.
  static uint64_t GetPackedByteCount(const CQvImageFormat& xFormat);
};

}  // namespace Qv
