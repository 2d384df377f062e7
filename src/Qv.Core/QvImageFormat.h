// Pixel and data type identifiers and the image format record (size plus types).
#pragma once

#include <cstdint>
#include <type_traits>

#include "QvString.h"

namespace Qv::Interop::Runtime28 {

struct EPixelType {
  enum ID : int32_t {
    None = 0,
    RGB = 0x1907,
    RGBA = 0x1908,
    Lum = 0x1909,
    LumA = 0x190A,
    BayerRG = 0x2001,
    BayerBG = 0x2002,
    BayerGR = 0x2003,
    BayerGB = 0x2004,
    BGR = 0x80E0,
    BGRA = 0x80E1,
    Unknown = 0x8757
  };
};

struct EDataType {
  enum ID : int32_t {
    Void = 0,
    Custom_10in16_LSB = 10,
    Custom_10in16_MSB = 11,
    Custom_12in16_LSB = 12,
    Custom_12in16_MSB = 13,
    Custom_10Packed = 14,
    Custom_12Packed = 15,
    Byte = 0x1400,
    UByte = 0x1401,
    Short = 0x1402,
    UShort = 0x1403,
    Int = 0x1404,
    UInt = 0x1405,
    Float = 0x1406,
    Double = 0x140A,
    Integral_10 = 0x1410,
    Integral_12 = 0x1411
  };
};

// Host image interface. The order of the virtual functions is part of the binary interface:
// bytes per pixel, size, type, data pointer, const data pointer. Rows are packed
// (row bytes = width * bytes per pixel).
class IImage {
 public:
  virtual int GetBytesPerPixel() const = 0;
  virtual void GetSize(int& iWidth, int& iHeight) const = 0;
  virtual void GetType(EPixelType::ID& ePixelType, EDataType::ID& eDataType) const = 0;
  virtual void* GetDataPtr() = 0;
  virtual const void* GetDataPtr() const = 0;
  virtual ~IImage();
};

}  // namespace Qv::Interop::Runtime28

namespace Qv {

using Interop::Runtime28::EDataType;
using Interop::Runtime28::EPixelType;
using Interop::Runtime28::IImage;

// Plain value record: exactly four 32-bit fields in this order, standard layout, because it is
// copied byte for byte into descriptors that the GPU reads.
class CQvImageFormat {
 public:
  int32_t iWidth = 0;
  int32_t iHeight = 0;
  EDataType::ID eDataType = EDataType::Void;
  EPixelType::ID ePixelType = EPixelType::None;

  CQvImageFormat() = default;
  // Note the argument order: pixel type before data type.
  CQvImageFormat(int32_t iWidthIn, int32_t iHeightIn, EPixelType::ID ePixelTypeIn,
                 EDataType::ID eDataTypeIn);
  // Takes size and types from the image.
  explicit CQvImageFormat(const IImage& xImage);

  // Channels per pixel: None 0; Lum and the four Bayer types 1; LumA 2; RGB, BGR 3;
  // RGBA, BGRA 4; Unknown (0x8757) 2. Any other id throws CQvException "Unknown pixel type".
  int GetComponentCount() const;
  // Bytes per channel: Void 0; Byte, UByte 1; Short, UShort and the four Custom_x_in16 types 2;
  // Int, UInt, Float 4; Double 8. Any other id (packed and integral types included) throws
  // CQvException "Unknown data type '<name>'".
  int GetBytesPerChannel() const;
  // Integral data types throw first; then bytes per channel (may throw), then component count
  // (may throw); the product. Void data or None pixels give 0.
  int GetBytesPerPixel() const;
  // Width * bytes per pixel in 64 bit; 0 for a non-positive width.
  uint64_t GetRowBytes() const;
  // Width * height * bytes per pixel in 64 bit; 0 for non-positive sizes.
  uint64_t GetImageBytes() const;
  // True for a non-positive size or pixel type None.
  bool IsEmpty() const;
  // "1920x1080, RGBA, UByte".
  CQvString ToString() const;

  // Names of the ids; any id without a name gives "Unknown". Never fails.
  static const char* PixelType2String(int32_t iId);
  static const char* DataType2String(int32_t iId);

  bool operator==(const CQvImageFormat& xOther) const;
  bool operator!=(const CQvImageFormat& xOther) const { return !(*this == xOther); }
};

static_assert(sizeof(CQvImageFormat) == 16, "CQvImageFormat must be four 32-bit fields");
static_assert(std::is_standard_layout<CQvImageFormat>::value,
              "CQvImageFormat must be standard layout");
static_assert(std::is_trivially_copyable<CQvImageFormat>::value,
              "CQvImageFormat must be trivially copyable");

}  // namespace Qv
