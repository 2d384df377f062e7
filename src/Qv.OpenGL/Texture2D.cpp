#include "Texture2D.h"

#include "QvMessage.h"

// GLEW before any other GL header.
#include <GL/glew.h>

#include <cstdio>
#include <utility>

#include "QvCudaCompConvolve.h"
#include "QvCudaException.h"
#include "QvDevice.h"
#include "QvGraphicsInterop.h"

namespace Qv {
namespace OpenGL {
namespace {

constexpr const char* kUnregisterFailed = "Error unregistering OpenGL texture with CUDA";
constexpr const char* kRegisterFailed = "Error registering OpenGL texture with CUDA";
constexpr const char* kMapFailed = "Error mapping OpenGL texture for access by CUDA";
constexpr const char* kArrayFailed = "Error obtaining pointer to mapped array";
constexpr const char* kUnmapFailed = "Error unmapping OpenGL texture resource";
constexpr const char* kDeviceCopyFailed = "Error copying device image to OpenGL texture";
constexpr const char* kHostCopyFailed = "Error copying host image to OpenGL texture";
// cudaGraphicsRegisterFlagsWriteDiscard: the device overwrites the whole texture each frame.
constexpr unsigned int kRegisterWriteDiscard = 2;

// Column of the format tables: RGBA/BGRA, RGB/BGR, Lum and the bayer types, LumA.
int PixelColumn(EPixelType::ID ePixel) {
  switch (ePixel) {
    case EPixelType::RGBA:
    case EPixelType::BGRA:
      return 0;
    case EPixelType::RGB:
    case EPixelType::BGR:
      return 1;
    case EPixelType::Lum:
    case EPixelType::BayerRG:
    case EPixelType::BayerBG:
    case EPixelType::BayerGR:
    case EPixelType::BayerGB:
      return 2;
    case EPixelType::LumA:
      return 3;
    default:
      return -1;
  }
}

// Row of the unnormalized table; the two float types share one.
int DataRow(EDataType::ID eData) {
  switch (eData) {
    case EDataType::Byte:
      return 0;
    case EDataType::UByte:
      return 1;
    case EDataType::Short:
      return 2;
    case EDataType::UShort:
      return 3;
    case EDataType::Int:
      return 4;
    case EDataType::UInt:
      return 5;
    case EDataType::Float:
    case EDataType::Double:
      return 6;
    default:
      return -1;
  }
}

[[noreturn]] void ThrowUnknown(const char* szWhat, const CQvImageFormat& xFormat) {
  CQvString sText(szWhat);
  sText << xFormat.ToString();
  QV_THROW(sText.ToCString());
}

// GL reports through a sticky flag: drained before a step, read after it.
void DrainGlErrors() {
  for (int i = 0; i < 16 && glGetError() != GL_NO_ERROR; ++i) {
  }
}

void CheckGl(const char* szFailure) {
  const GLenum eError = glGetError();
  if (eError == GL_NO_ERROR) return;
  DrainGlErrors();
  char szCode[48];
  std::snprintf(szCode, sizeof(szCode), " (GL error 0x%04x)", eError);
  CQvString sText(szFailure);
  sText << szCode;
  QV_THROW(sText.ToCString());
}

}  // namespace

CTexture2D::~CTexture2D() {
  try {
    Destroy();
  } catch (...) {
  }
}

bool CTexture2D::IsValid() const {
  return uId != 0 && (pxResource != nullptr || bHostUpload);
}

void CTexture2D::Destroy() {
  if (pxResource) {
    cudaGraphicsResource_t hResource = pxResource;
    pxResource = nullptr;
    Device::UnregisterGraphics(hResource, kUnregisterFailed);
  }
  if (uId != 0 && bOwned) glDeleteTextures(1, &uId);
  bOwned = false;
  bMipMapped = false;
  bHostUpload = false;
  uId = 0;
  iLevels = 0;
  xFormat = CQvImageFormat();
}

void CTexture2D::CreateExtern(unsigned int id) {
  if (id == 0) QV_THROW("Invalid texture ID");
  Destroy();
  if (Device::HasGraphicsInterop())
    pxResource = Device::RegisterGLImage(id, GL_TEXTURE_2D, 0, kRegisterFailed);
  else
    bHostUpload = true;
  bOwned = false;
  uId = id;
}

cudaArray_t CTexture2D::GetMappedCudaArray() {
  if (!pxResource)
    throw CQvCudaException::CreateFirst(
        "Error mapping OpenGL texture for access by CUDA. The resource handle is null", __FILE__,
        __func__, __LINE__, cudaErrorInvalidResourceHandle);
  Device::MapGraphics(pxResource, nullptr, kMapFailed);
  return Device::GetMappedArray(pxResource, 0, kArrayFailed);
}

void CTexture2D::UnmapCudaArray() {
  Device::UnmapGraphics(pxResource, nullptr, kUnmapFailed);
}

unsigned int CTexture2D::ToGlInternalFormat(const CQvImageFormat& xFormat, bool normalized) {
  static const GLenum aNormalized[2][4] = {
      {GL_RGBA8, GL_RGB8, GL_LUMINANCE8, GL_LUMINANCE8_ALPHA8},
      {GL_RGBA16, GL_RGB16, GL_LUMINANCE16, GL_LUMINANCE16_ALPHA16}};
  static const GLenum aInteger[7][4] = {
      {GL_RGBA8I, GL_RGB8I, GL_R8I, GL_RG8I},     {GL_RGBA8UI, GL_RGB8UI, GL_R8UI, GL_RG8UI},
      {GL_RGBA16I, GL_RGB16I, GL_R16I, GL_RG16I}, {GL_RGBA16UI, GL_RGB16UI, GL_R16UI, GL_RG16UI},
      {GL_RGBA32I, GL_RGB32I, GL_R32I, GL_RG32I}, {GL_RGBA32UI, GL_RGB32UI, GL_R32UI, GL_RG32UI},
      {GL_RGBA32F, GL_RGB32F, GL_R32F, GL_RG32F}};
  const int iRow = DataRow(xFormat.eDataType);
  if (iRow < 0) ThrowUnknown("Unknown image data type: ", xFormat);
  const int iColumn = PixelColumn(xFormat.ePixelType);
  if (iColumn < 0) ThrowUnknown("Unknown image pixel type: ", xFormat);
  // Normalized, every type wider than a byte gets 16 bits, floats too.
  return normalized ? aNormalized[iRow < 2 ? 0 : 1][iColumn] : aInteger[iRow][iColumn];
}

unsigned int CTexture2D::ToGlInternalType(const CQvImageFormat& xFormat, bool normalized) {
  const EPixelType::ID ePixel = xFormat.ePixelType;
  if (xFormat.eDataType == EDataType::Float || xFormat.eDataType == EDataType::Double)
    return static_cast<unsigned int>(ePixel);
  switch (ePixel) {
    case EPixelType::RGBA:
      return normalized ? GL_RGBA : GL_RGBA_INTEGER;
    case EPixelType::RGB:
      return normalized ? GL_RGB : GL_RGB_INTEGER;
    case EPixelType::BGRA:
      return normalized ? GL_BGRA : GL_BGRA_INTEGER;
    case EPixelType::BGR:
      return normalized ? GL_BGR : GL_BGR_INTEGER;
    default:
      return PixelColumn(ePixel) == 2 ? (normalized ? GL_RED : GL_RED_INTEGER)
                                      : static_cast<unsigned int>(ePixel);
  }
}

void CTexture2D::Set(const CQvDeviceImage2D& image, bool mipmap, bool normalized,
                     cudaStream_t stream) {
  if (!image.IsValid()) QV_THROW("Given image is invalid");
  _Set(image.GetFormat(), image.GetDevicePointer(), true, image.GetDevicePitch(), mipmap,
       normalized, stream);
}

void CTexture2D::Set(const CQvImage& image, bool mipmap, bool normalized) {
  if (!image.IsValid()) QV_THROW("Given image is invalid");
  _Set(image.GetFormat(), image.GetDataPtr(), false, 0, mipmap, normalized, nullptr);
}

void CTexture2D::BuildStorage(const CQvImageFormat& format, bool mipmap, bool normalized) {
  if (pxResource) {
    cudaGraphicsResource_t hResource = pxResource;
    pxResource = nullptr;
    Device::UnregisterGraphics(hResource, kUnregisterFailed);
  }
  const GLint iInternal = static_cast<GLint>(ToGlInternalFormat(format, normalized));
  const GLenum eTransfer = ToGlInternalType(format, normalized);
  // The chain stops before the first level with no pixels, and GL is told so, so that the
  // texture stays complete for images narrower than 2^9.
  int iLevelCount = 1;
  if (mipmap)
    while (iLevelCount <= kMaxMipLevel && (format.iWidth >> iLevelCount) > 0 &&
           (format.iHeight >> iLevelCount) > 0)
      ++iLevelCount;

  DrainGlErrors();
  glBindTexture(GL_TEXTURE_2D, uId);
  glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAX_LEVEL, iLevelCount - 1);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER,
                  mipmap ? GL_LINEAR_MIPMAP_LINEAR : GL_NEAREST);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_R, GL_CLAMP_TO_EDGE);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
  for (int iLevel = 0; iLevel < iLevelCount; ++iLevel)
    glTexImage2D(GL_TEXTURE_2D, iLevel, iInternal, format.iWidth >> iLevel,
                 format.iHeight >> iLevel, 0, eTransfer, static_cast<GLenum>(format.eDataType),
                 nullptr);
  glBindTexture(GL_TEXTURE_2D, 0);
  CheckGl("Error creating OpenGL texture storage");

  bHostUpload = true;
  if (Device::HasGraphicsInterop()) {
    try {
      pxResource =
          Device::RegisterGLImage(uId, GL_TEXTURE_2D, kRegisterWriteDiscard, kRegisterFailed);
      bHostUpload = false;
    } catch (const CQvException& e) {
      // A GL that isn't on the CUDA device (Mesa under Xvfb), or a format CUDA can't share
      // (three channels): the picture still comes, through host memory.
      if (!bToldHostUpload)
        Qv::OperatorMessage("texture: frames go through host memory: %s\n", e.GetMessageText());
      bToldHostUpload = true;
    }
  }
  xFormat = format;
  bMipMapped = mipmap;
  bNormalized = normalized;
  iLevels = iLevelCount;
}

void CTexture2D::UploadLevel(int iLevel, const CQvImageFormat& format, const void* data,
                             bool isDevice, size_t pitch, cudaStream_t stream) {
  const size_t uRow = format.GetRowBytes();
  const size_t uHeight = static_cast<size_t>(format.iHeight);
  const size_t uPitch = pitch ? pitch : uRow;
  const char* szFailure = isDevice ? kDeviceCopyFailed : kHostCopyFailed;
  if (pxResource) {
    cudaArray_t hArray =
        Device::GetMappedArray(pxResource, static_cast<unsigned int>(iLevel), kArrayFailed);
    Device::Copy2DToArray(
        hArray, data, uPitch, uRow, uHeight,
        isDevice ? Device::ECopyKind::DeviceToDevice : Device::ECopyKind::HostToDevice, stream,
        iLevel == 0, szFailure);
    return;
  }
  const auto* pSource = static_cast<const uint8_t*>(data);
  size_t uSourcePitch = uPitch;
  const size_t uPixelBytes = static_cast<size_t>(format.GetBytesPerPixel());
  const bool bDeviceMemory = isDevice && Device::IsCuda();
  // GL reads host memory with a row length in whole pixels: anything else is packed first.
  if (bDeviceMemory || uPitch % uPixelBytes != 0) {
    xStaging.resize(uRow * uHeight);
    Device::Copy2D(xStaging.data(), uRow, data, uPitch, uRow, uHeight,
                   bDeviceMemory ? Device::ECopyKind::DeviceToHost : Device::ECopyKind::HostToHost,
                   stream, false);
    pSource = xStaging.data();
    uSourcePitch = uRow;
  }
  DrainGlErrors();
  glBindTexture(GL_TEXTURE_2D, uId);
  glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
  glPixelStorei(GL_UNPACK_ROW_LENGTH, static_cast<GLint>(uSourcePitch / uPixelBytes));
  glTexSubImage2D(GL_TEXTURE_2D, iLevel, 0, 0, format.iWidth, format.iHeight,
                  ToGlInternalType(format, bNormalized), static_cast<GLenum>(format.eDataType),
                  pSource);
  glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
  glBindTexture(GL_TEXTURE_2D, 0);
  CheckGl(szFailure);
}

void CTexture2D::BuildMipChain(const CQvImageFormat& format, const void* data, bool isDevice,
                               size_t pitch, cudaStream_t stream) {
  // Every level is filtered from the one before it, on the device; the temporaries come from
  // the device allocator's cache. The levels are copied on the default stream, after the map
  // and the copy of level 0 on the window's stream are through.
  Device::SynchronizeStream(stream);
  CQvCudaCompConvolve xComp;
  CQvDeviceImage2D xSource(format), xTarget;
  Device::Copy2D(xSource.GetDevicePointer(), xSource.GetDevicePitch(), data,
                 pitch ? pitch : format.GetRowBytes(), format.GetRowBytes(),
                 static_cast<size_t>(format.iHeight),
                 isDevice ? Device::ECopyKind::DeviceToDevice : Device::ECopyKind::HostToDevice,
                 stream, false);
  for (int iLevel = 1; iLevel < iLevels; ++iLevel) {
    xComp.Apply_Gauss(xTarget, xSource, 1.0, 2, 2);
    UploadLevel(iLevel, xTarget.GetFormat(), xTarget.GetDevicePointer(), true,
                xTarget.GetDevicePitch(), stream);
    std::swap(xSource, xTarget);
  }
}

void CTexture2D::_Set(const CQvImageFormat& format, const void* data, bool isDevice, size_t pitch,
                      bool mipmap, bool normalized, cudaStream_t stream) {
  if (!IsValid()) {
    Destroy();
    glGenTextures(1, &uId);
    bOwned = true;
  }
  const bool bSameStorage = format.iWidth == xFormat.iWidth && format.iHeight == xFormat.iHeight &&
                            format.ePixelType == xFormat.ePixelType &&
                            format.eDataType == xFormat.eDataType && mipmap == bMipMapped &&
                            normalized == bNormalized;
  if (!bSameStorage) BuildStorage(format, mipmap, normalized);

  // Mapped only for the copies, so that GL may draw from the texture in between. Map, copy
  // and unmap go on one stream, which orders the copy before the next draw.
  if (pxResource) Device::MapGraphics(pxResource, stream, kMapFailed);
  try {
    UploadLevel(0, format, data, isDevice, pitch, stream);
    if (mipmap) BuildMipChain(format, data, isDevice, pitch, stream);
  } catch (const CQvException& e) {
    if (pxResource) Device::UnmapGraphics(pxResource, stream, nullptr);
    QV_RETHROW("Error setting 2D OpenGL texture", e);
  }
  if (pxResource) {
    Device::UnmapGraphics(pxResource, stream, kUnmapFailed);
    // The caller lets the source image go when this returns.
    Device::SynchronizeStream(stream);
  }
}

}  // namespace OpenGL
}  // namespace Qv
