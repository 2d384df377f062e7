#pragma once
// Compile-time pixel classes: the tags that select a kernel instance, and what a kernel
// needs to read and store a pixel of that class.
#include <cstdint>

#include "QvCudaDefs.h"
#include "QvImageFormat.h"

namespace Qv {

template <typename TElem, int nColor, int nAlpha, int iR, int iG, int iB, int iA, int ePix,
          int eData>
struct TPixel {
  using Element = TElem;
  static constexpr int iColorChannels = nColor;
  static constexpr int iAlphaChannels = nAlpha;
  static constexpr int iChannels = nColor + nAlpha;
  static constexpr int iRed = iR;
  static constexpr int iGreen = iG;
  static constexpr int iBlue = iB;
  static constexpr int iAlpha = iA;
  static constexpr EPixelType::ID ePixelType = static_cast<EPixelType::ID>(ePix);
  static constexpr EDataType::ID eDataType = static_cast<EDataType::ID>(eData);
  static constexpr int iBytesPerPixel = static_cast<int>(sizeof(TElem)) * (nColor + nAlpha);
  // Integer classes read as v / M and store by the storing rule with scale M; float
  // classes read and store unscaled (M = 0 marks them).
  static constexpr float fStoreScale =
      eData == EDataType::UByte ? 255.0f : (eData == EDataType::UShort ? 65535.0f : 0.0f);
  static constexpr bool bIsFloat = eData == EDataType::Float;
};

using L_uc = TPixel<unsigned char, 1, 0, 0, 0, 0, 0, EPixelType::Lum, EDataType::UByte>;
using L_us = TPixel<unsigned short, 1, 0, 0, 0, 0, 0, EPixelType::Lum, EDataType::UShort>;
using L_f = TPixel<float, 1, 0, 0, 0, 0, 0, EPixelType::Lum, EDataType::Float>;
using RGBA_uc = TPixel<unsigned char, 3, 1, 0, 1, 2, 3, EPixelType::RGBA, EDataType::UByte>;
using RGBA_us = TPixel<unsigned short, 3, 1, 0, 1, 2, 3, EPixelType::RGBA, EDataType::UShort>;
using RGBA_f = TPixel<float, 3, 1, 0, 1, 2, 3, EPixelType::RGBA, EDataType::Float>;

inline bool IsBayerPixelType(int32_t ePixelType) {
  return ePixelType >= EPixelType::BayerRG && ePixelType <= EPixelType::BayerGB;
}

// True when an image of the given ids can be handled as pixel class T. Bayer mosaics count as
// one-channel data of the same data type for the Lum classes when bBayerAsLum is set.
template <class T>
bool IsFormatOfType(const CQvImageFormat& xFormat, bool bBayerAsLum) {
  if (xFormat.ePixelType == T::ePixelType && xFormat.eDataType == T::eDataType) return true;
  return bBayerAsLum && T::ePixelType == EPixelType::Lum && xFormat.eDataType == T::eDataType &&
         IsBayerPixelType(xFormat.ePixelType);
}

}  // namespace Qv
