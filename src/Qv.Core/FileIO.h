// Reading and writing image files (PNG).
#pragma once

#include "QvImage.h"

namespace Qv::FileIO {

class CImage {
 public:
  // Reads a PNG file. 8 and 16 bit gray, gray+alpha, RGB and RGBA are read as Lum, LumA, RGB
  // and RGBA with data UByte or UShort (16-bit samples in host byte order). Palette images
  // become RGB (RGBA with transparency), gray below 8 bit is expanded to 8 bit, and a tRNS
  // chunk becomes an alpha channel. Failures throw CQvException naming the path:
  // "Cannot open image file '<path>'", "Not a PNG file '<path>'",
  // "Error reading PNG file '<path>': <reason>".
  static void Read(CQvImage& xImage, const char* pPath);

  // Writes Lum, LumA, RGB, RGBA, BGR or BGRA images with data UByte or UShort as 8 or 16 bit
  // PNG (BGR orders are written as RGB). Failures throw CQvException naming the path:
  // "Unsupported image for PNG file '<path>': <format>", "Cannot create image file '<path>'",
  // "Error writing PNG file '<path>': <reason>". A partly written file is removed.
  static void WritePNG(const IImage& xImage, const char* pPath);
};

}  // namespace Qv::FileIO
