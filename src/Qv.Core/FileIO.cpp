#include "FileIO.h"

#include <png.h>
#include <sys/stat.h>

#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <vector>

#include "QvException.h"

namespace Qv::FileIO {

namespace {

constexpr size_t kSignatureBytes = 8;

bool IsLittleEndianHost() {
  const uint16_t uProbe = 1;
  uint8_t uFirst = 0;
  std::memcpy(&uFirst, &uProbe, 1);
  return uFirst == 1;
}

// State shared with the libpng callbacks. Everything that must survive a longjmp lives here
// (outside the frames that call setjmp), and the only objects with destructors are owned by
// the C++ frames that never see a longjmp.
struct SPngState {
  png_structp pPng = nullptr;
  png_infop pInfo = nullptr;
  char acError[256] = {};
  png_uint_32 uWidth = 0;
  png_uint_32 uHeight = 0;
  int iChannels = 0;
  int iBitDepth = 0;
  size_t uRowBytes = 0;
  size_t uFileRowBytes = 0;  // as stored, before expansion
};

void OnPngError(png_structp pPng, png_const_charp pMessage) {
  SPngState* pState = static_cast<SPngState*>(png_get_error_ptr(pPng));
  if (pState != nullptr) {
    std::snprintf(pState->acError, sizeof(pState->acError), "%s",
                  pMessage != nullptr ? pMessage : "unknown error");
  }
  png_longjmp(pPng, 1);
}

void OnPngWarning(png_structp, png_const_charp) {}

CQvString QuotedPath(const char* pPath) {
  CQvString sText("'");
  sText << pPath << "'";
  return sText;
}

CQvString ReadErrorText(const char* pPath, const SPngState& xState) {
  CQvString sText("Error reading PNG file ");
  sText << QuotedPath(pPath) << ": " << xState.acError;
  return sText;
}

// Owns the read structures and the file; frees them on every path.
class CPngReader {
 public:
  explicit CPngReader(FILE* pFile) : m_pFile(pFile) {}
  ~CPngReader() {
    if (m_xState.pPng != nullptr) png_destroy_read_struct(&m_xState.pPng, &m_xState.pInfo, nullptr);
    if (m_pFile != nullptr) std::fclose(m_pFile);
  }
  CPngReader(const CPngReader&) = delete;
  CPngReader& operator=(const CPngReader&) = delete;

  SPngState m_xState;
  FILE* m_pFile;
};

// The functions that call setjmp hold no objects with destructors and change no local
// variables after setjmp; all results go into the state.
bool ReadPngInfo(SPngState* pState, FILE* pFile) {
  if (setjmp(png_jmpbuf(pState->pPng))) return false;
  png_init_io(pState->pPng, pFile);
  png_set_sig_bytes(pState->pPng, static_cast<int>(kSignatureBytes));
  png_read_info(pState->pPng, pState->pInfo);
  pState->uFileRowBytes = png_get_rowbytes(pState->pPng, pState->pInfo);

  const int iColorType = png_get_color_type(pState->pPng, pState->pInfo);
  const int iBitDepth = png_get_bit_depth(pState->pPng, pState->pInfo);
  if (iColorType == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(pState->pPng);
  if (iColorType == PNG_COLOR_TYPE_GRAY && iBitDepth < 8) {
    png_set_expand_gray_1_2_4_to_8(pState->pPng);
  }
  if (png_get_valid(pState->pPng, pState->pInfo, PNG_INFO_tRNS) != 0) {
    png_set_tRNS_to_alpha(pState->pPng);
  }
  if (iBitDepth == 16 && IsLittleEndianHost()) png_set_swap(pState->pPng);
  png_set_interlace_handling(pState->pPng);
  png_read_update_info(pState->pPng, pState->pInfo);

  pState->uWidth = png_get_image_width(pState->pPng, pState->pInfo);
  pState->uHeight = png_get_image_height(pState->pPng, pState->pInfo);
  pState->iChannels = png_get_channels(pState->pPng, pState->pInfo);
  pState->iBitDepth = png_get_bit_depth(pState->pPng, pState->pInfo);
  pState->uRowBytes = png_get_rowbytes(pState->pPng, pState->pInfo);
  return true;
}

bool ReadPngRows(SPngState* pState, png_bytepp ppRows) {
  if (setjmp(png_jmpbuf(pState->pPng))) return false;
  png_read_image(pState->pPng, ppRows);
  png_read_end(pState->pPng, nullptr);
  return true;
}

// Owns the write structures and the file; on failure the file is closed and removed.
class CPngWriter {
 public:
  CPngWriter(FILE* pFile, const char* pPath) : m_pFile(pFile), m_pPath(pPath) {}
  ~CPngWriter() {
    if (m_xState.pPng != nullptr) png_destroy_write_struct(&m_xState.pPng, &m_xState.pInfo);
    if (m_pFile != nullptr) {
      std::fclose(m_pFile);
      if (!m_bDone) std::remove(m_pPath);
    }
  }
  CPngWriter(const CPngWriter&) = delete;
  CPngWriter& operator=(const CPngWriter&) = delete;

  // Closes the file; false when the data could not be flushed.
  bool Finish() {
    FILE* pFile = m_pFile;
    m_pFile = nullptr;
    if (std::fclose(pFile) != 0) {
      std::remove(m_pPath);
      return false;
    }
    m_bDone = true;
    return true;
  }

  SPngState m_xState;
  FILE* m_pFile;
  const char* m_pPath;
  bool m_bDone = false;
};

bool WritePngData(SPngState* pState, FILE* pFile, int iColorType, bool bBgr, png_bytepp ppRows) {
  if (setjmp(png_jmpbuf(pState->pPng))) return false;
  png_init_io(pState->pPng, pFile);
  png_set_IHDR(pState->pPng, pState->pInfo, pState->uWidth, pState->uHeight, pState->iBitDepth,
               iColorType, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_write_info(pState->pPng, pState->pInfo);
  if (pState->iBitDepth == 16 && IsLittleEndianHost()) png_set_swap(pState->pPng);
  if (bBgr) png_set_bgr(pState->pPng);
  png_write_image(pState->pPng, ppRows);
  png_write_end(pState->pPng, nullptr);
  if (std::fflush(pFile) != 0) png_error(pState->pPng, "cannot write file data");
  return true;
}

}  // namespace

void CImage::Read(CQvImage& xImage, const char* pPath) {
  if (pPath == nullptr) pPath = "";
  FILE* pFile = std::fopen(pPath, "rb");
  if (pFile == nullptr) {
    QV_THROW((CQvString("Cannot open image file ") << QuotedPath(pPath)).ToCString());
  }
  CPngReader xReader(pFile);

  png_byte auSignature[kSignatureBytes] = {};
  if (std::fread(auSignature, 1, kSignatureBytes, pFile) != kSignatureBytes ||
      png_sig_cmp(auSignature, 0, kSignatureBytes) != 0) {
    QV_THROW((CQvString("Not a PNG file ") << QuotedPath(pPath)).ToCString());
  }

  SPngState& xState = xReader.m_xState;
  xState.pPng = png_create_read_struct(PNG_LIBPNG_VER_STRING, &xState, &OnPngError, &OnPngWarning);
  if (xState.pPng != nullptr) xState.pInfo = png_create_info_struct(xState.pPng);
  if (xState.pPng == nullptr || xState.pInfo == nullptr) {
    QV_THROW((CQvString("Error reading PNG file ") << QuotedPath(pPath) << ": out of memory")
                 .ToCString());
  }

  if (!ReadPngInfo(&xState, pFile)) QV_THROW(ReadErrorText(pPath, xState).ToCString());

  EPixelType::ID ePixelType = EPixelType::None;
  switch (xState.iChannels) {
    case 1:
      ePixelType = EPixelType::Lum;
      break;
    case 2:
      ePixelType = EPixelType::LumA;
      break;
    case 3:
      ePixelType = EPixelType::RGB;
      break;
    case 4:
      ePixelType = EPixelType::RGBA;
      break;
    default:
      break;
  }
  const EDataType::ID eDataType = xState.iBitDepth == 16  ? EDataType::UShort
                                  : xState.iBitDepth == 8 ? EDataType::UByte
                                                          : EDataType::Void;
  if (ePixelType == EPixelType::None || eDataType == EDataType::Void ||
      xState.uWidth > 0x7FFFFFFFu || xState.uHeight > 0x7FFFFFFFu) {
    std::snprintf(xState.acError, sizeof(xState.acError), "unsupported layout");
    QV_THROW(ReadErrorText(pPath, xState).ToCString());
  }
  // A header asks for no more than the file (deflate expands 1032-fold at most) and 1 GiB hold:
  // a lying one fails before allocation, a cut file where its rows, read one by one, end.
  struct stat xStat {};
  const bool bSized = fstat(fileno(pFile), &xStat) == 0 && S_ISREG(xStat.st_mode);  // not a pipe
  if ((bSized &&
       uint64_t(xState.uHeight) * (xState.uFileRowBytes + 1) > 1032 * uint64_t(xStat.st_size)) ||
      uint64_t(xState.uHeight) * xState.uRowBytes > (uint64_t(1) << 30)) {
    std::snprintf(xState.acError, sizeof(xState.acError),
                  "header asks for %ux%u pixels, more than the file or 1 GiB holds",
                  unsigned(xState.uWidth), unsigned(xState.uHeight));
    QV_THROW(ReadErrorText(pPath, xState).ToCString());
  }

  CQvImage xResult(CQvImageFormat(static_cast<int32_t>(xState.uWidth),
                                  static_cast<int32_t>(xState.uHeight), ePixelType, eDataType));
  if (xResult.GetFormat().GetRowBytes() != xState.uRowBytes) {
    std::snprintf(xState.acError, sizeof(xState.acError), "unexpected row size");
    QV_THROW(ReadErrorText(pPath, xState).ToCString());
  }
  std::vector<png_bytep> vpRows(xState.uHeight);
  uint8_t* pData = static_cast<uint8_t*>(xResult.GetDataPtr());
  for (png_uint_32 uRow = 0; uRow < xState.uHeight; ++uRow) {
    vpRows[uRow] = pData + static_cast<size_t>(uRow) * xState.uRowBytes;
  }
  if (!ReadPngRows(&xState, vpRows.data())) QV_THROW(ReadErrorText(pPath, xState).ToCString());

  xImage = std::move(xResult);
}

void CImage::WritePNG(const IImage& xImage, const char* pPath) {
  if (pPath == nullptr) pPath = "";
  const CQvImageFormat xFormat(xImage);
  int iColorType = -1;
  bool bBgr = false;
  switch (xFormat.ePixelType) {
    case EPixelType::Lum:
      iColorType = PNG_COLOR_TYPE_GRAY;
      break;
    case EPixelType::LumA:
      iColorType = PNG_COLOR_TYPE_GRAY_ALPHA;
      break;
    case EPixelType::BGR:
      bBgr = true;
      iColorType = PNG_COLOR_TYPE_RGB;
      break;
    case EPixelType::RGB:
      iColorType = PNG_COLOR_TYPE_RGB;
      break;
    case EPixelType::BGRA:
      bBgr = true;
      iColorType = PNG_COLOR_TYPE_RGB_ALPHA;
      break;
    case EPixelType::RGBA:
      iColorType = PNG_COLOR_TYPE_RGB_ALPHA;
      break;
    default:
      break;
  }
  const int iBitDepth = xFormat.eDataType == EDataType::UByte    ? 8
                        : xFormat.eDataType == EDataType::UShort ? 16
                                                                 : 0;
  const void* pData = xImage.GetDataPtr();
  if (iColorType < 0 || iBitDepth == 0 || xFormat.IsEmpty() || pData == nullptr) {
    QV_THROW((CQvString("Unsupported image for PNG file ")
              << QuotedPath(pPath) << ": " << xFormat.ToString())
                 .ToCString());
  }

  FILE* pFile = std::fopen(pPath, "wb");
  if (pFile == nullptr) {
    QV_THROW((CQvString("Cannot create image file ") << QuotedPath(pPath)).ToCString());
  }
  CPngWriter xWriter(pFile, pPath);
  SPngState& xState = xWriter.m_xState;
  xState.pPng = png_create_write_struct(PNG_LIBPNG_VER_STRING, &xState, &OnPngError, &OnPngWarning);
  if (xState.pPng != nullptr) xState.pInfo = png_create_info_struct(xState.pPng);
  if (xState.pPng == nullptr || xState.pInfo == nullptr) {
    QV_THROW((CQvString("Error writing PNG file ") << QuotedPath(pPath) << ": out of memory")
                 .ToCString());
  }
  xState.uWidth = static_cast<png_uint_32>(xFormat.iWidth);
  xState.uHeight = static_cast<png_uint_32>(xFormat.iHeight);
  xState.iBitDepth = iBitDepth;
  xState.uRowBytes = static_cast<size_t>(xFormat.GetRowBytes());

  // libpng copies each row before transforming it, so the image data is only read.
  std::vector<png_bytep> vpRows(xState.uHeight);
  png_bytep pBytes = static_cast<png_bytep>(const_cast<void*>(pData));
  for (png_uint_32 uRow = 0; uRow < xState.uHeight; ++uRow) {
    vpRows[uRow] = pBytes + static_cast<size_t>(uRow) * xState.uRowBytes;
  }
  if (!WritePngData(&xState, pFile, iColorType, bBgr, vpRows.data())) {
    QV_THROW((CQvString("Error writing PNG file ") << QuotedPath(pPath) << ": " << xState.acError)
                 .ToCString());
  }
  if (!xWriter.Finish()) {
    QV_THROW((CQvString("Error writing PNG file ") << QuotedPath(pPath) << ": cannot close file")
                 .ToCString());
  }
}

}  // namespace Qv::FileIO
