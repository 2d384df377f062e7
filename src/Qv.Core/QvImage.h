// Host images: CQvImage owns its pixels, CQvImageMoniker views pixels owned by someone else.
// Both use packed rows (row bytes = width * bytes per pixel).
#pragma once

#include <cstddef>
#include <cstdint>

#include "QvImageFormat.h"

namespace Qv {

class CQvImage : public IImage {
 public:
  CQvImage();
  explicit CQvImage(const CQvImageFormat& xFormat);
  CQvImage(const CQvImage& xOther);  // deep copy
  CQvImage(CQvImage&& xOther) noexcept;
  CQvImage& operator=(const CQvImage& xOther);
  CQvImage& operator=(CQvImage&& xOther) noexcept;
  ~CQvImage() override;

  // (Re)allocates for the format; the contents are undefined afterwards. The memory is kept
  // when the byte size does not change. Negative sizes throw CQvException "Invalid image size";
  // unknown types throw the format's errors. A format with zero bytes leaves no memory.
  void Create(const CQvImageFormat& xFormat);
  // Deep copy of any image: format and bytes (the source rows must be packed).
  void Create(const IImage& xSource);
  // Frees the memory and resets the format to the empty default.
  void Release();
  // True when pixel memory is held.
  bool IsValid() const;
  const CQvImageFormat& GetFormat() const { return m_xFormat; }
  uint64_t GetImageBytes() const { return m_uBytes; }

  int GetBytesPerPixel() const override;
  void GetSize(int& iWidth, int& iHeight) const override;
  void GetType(EPixelType::ID& ePixelType, EDataType::ID& eDataType) const override;
  void* GetDataPtr() override;
  const void* GetDataPtr() const override;

  // Same as the static form with range scaling.
  void ConvertType(CQvImage& xTarget, EPixelType::ID ePixelType, EDataType::ID eDataType) const;

  // Converts the source into the target with the given types and the source's size. The target
  // may be the source itself.
  //
  // Sources: Lum, LumA, RGB, RGBA, BGR, BGRA and the four Bayer types (read as Lum), with data
  // UByte, UShort or Float. Targets: Lum, LumA, RGB, RGBA, BGR, BGRA with UByte, UShort or
  // Float. A conversion to the same format is a plain copy (any type). Everything else throws
  // CQvException "Unsupported image type conversion: <source format> to <target format>",
  // formats written as CQvImageFormat::ToString.
  //
  // Each channel value is first converted to the target data type:
  //   bScaleRange true:  UShort->UByte v >> 8; UByte->UShort v * 257;
  //                      Float->integer: NaN -> 0, clamp to [0, 1], times 255 / 65535, truncated;
  //                      integer->Float: v / 255 or v / 65535.
  //   bScaleRange false: the value is only clamped to the target range (Float->integer also
  //                      maps NaN to 0 and truncates).
  // Then channels are mapped, working on the converted values:
  //   gray -> colour: R = G = B = gray.
  //   colour -> gray: integer targets Y = (R*299 + G*587 + B*114 + 500) / 1000 (integer
  //                   division); Float targets Y = R*0.299f + G*0.587f + B*0.114f.
  //   missing alpha: full scale of the target type (255, 65535, 1.0f); alpha is dropped when
  //                  the target has none.
  static void ConvertType(CQvImage& xTarget, const IImage& xSource, EPixelType::ID ePixelType,
                          EDataType::ID eDataType, bool bScaleRange);

 private:
  void Swap(CQvImage& xOther) noexcept;

  CQvImageFormat m_xFormat;
  uint8_t* m_pData = nullptr;
  uint64_t m_uBytes = 0;
};

// Non-owning view over caller memory with packed rows. Nothing is copied; the caller keeps the
// memory alive while the view is used.
class CQvImageMoniker : public IImage {
 public:
  CQvImageMoniker();
  CQvImageMoniker(int iWidth, int iHeight, EPixelType::ID ePixelType, EDataType::ID eDataType,
                  void* pData);

  // Negative sizes throw CQvException "Invalid image size"; unknown types throw the format's
  // errors; a null pointer for an image with bytes throws "Invalid image data pointer".
  void Create(int iWidth, int iHeight, EPixelType::ID ePixelType, EDataType::ID eDataType,
              void* pData);
  // True when it views memory of a non-empty image.
  bool IsValid() const;
  const CQvImageFormat& GetFormat() const { return m_xFormat; }

  int GetBytesPerPixel() const override;
  void GetSize(int& iWidth, int& iHeight) const override;
  void GetType(EPixelType::ID& ePixelType, EDataType::ID& eDataType) const override;
  void* GetDataPtr() override { return m_pData; }
  const void* GetDataPtr() const override { return m_pData; }

 private:
  CQvImageFormat m_xFormat;
  void* m_pData = nullptr;
};

}  // namespace Qv
