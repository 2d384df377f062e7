#include "QvImageFormat.h"

#include "QvException.h"

namespace Qv::Interop::Runtime28 {

IImage::~IImage() = default;

}  // namespace Qv::Interop::Runtime28

namespace Qv {

CQvImageFormat::CQvImageFormat(int32_t iWidthIn, int32_t iHeightIn, EPixelType::ID ePixelTypeIn,
                               EDataType::ID eDataTypeIn)
    : iWidth(iWidthIn), iHeight(iHeightIn), eDataType(eDataTypeIn), ePixelType(ePixelTypeIn) {}

CQvImageFormat::CQvImageFormat(const IImage& xImage) {
  xImage.GetType(ePixelType, eDataType);
  xImage.GetSize(iWidth, iHeight);
}

int CQvImageFormat::GetComponentCount() const {
  switch (static_cast<int32_t>(ePixelType)) {
    case EPixelType::None:
      return 0;
    case EPixelType::Lum:
    case EPixelType::BayerRG:
    case EPixelType::BayerBG:
    case EPixelType::BayerGR:
    case EPixelType::BayerGB:
      return 1;
    case EPixelType::LumA:
    case EPixelType::Unknown:
      return 2;
    case EPixelType::RGB:
    case EPixelType::BGR:
      return 3;
    case EPixelType::RGBA:
    case EPixelType::BGRA:
      return 4;
    default:
      QV_THROW("Unknown pixel type");
  }
}

int CQvImageFormat::GetBytesPerChannel() const {
  switch (static_cast<int32_t>(eDataType)) {
    case EDataType::Void:
      return 0;
    case EDataType::Byte:
    case EDataType::UByte:
      return 1;
    case EDataType::Custom_10in16_LSB:
    case EDataType::Custom_10in16_MSB:
    case EDataType::Custom_12in16_LSB:
    case EDataType::Custom_12in16_MSB:
    case EDataType::Short:
    case EDataType::UShort:
      return 2;
    case EDataType::Int:
    case EDataType::UInt:
    case EDataType::Float:
      return 4;
    case EDataType::Double:
      return 8;
    default: {
      CQvString sMessage("Unknown data type '");
      sMessage << DataType2String(eDataType) << "'";
      QV_THROW(sMessage.ToCString());
    }
  }
}

int CQvImageFormat::GetBytesPerPixel() const {
  if (eDataType == EDataType::Integral_10 || eDataType == EDataType::Integral_12) {
    QV_THROW("Unable to determine bytes per pixel from integral data formats");
  }
  const int iBytesPerChannel = GetBytesPerChannel();
  const int iComponents = GetComponentCount();
  return iBytesPerChannel * iComponents;
}

uint64_t CQvImageFormat::GetRowBytes() const {
  const uint64_t uBytesPerPixel = static_cast<uint64_t>(GetBytesPerPixel());
  if (iWidth <= 0) return 0;
  return static_cast<uint64_t>(iWidth) * uBytesPerPixel;
}

uint64_t CQvImageFormat::GetImageBytes() const {
  const uint64_t uBytesPerPixel = static_cast<uint64_t>(GetBytesPerPixel());
  if (iWidth <= 0 || iHeight <= 0) return 0;
  return static_cast<uint64_t>(iWidth) * static_cast<uint64_t>(iHeight) * uBytesPerPixel;
}

bool CQvImageFormat::IsEmpty() const {
  return iWidth <= 0 || iHeight <= 0 || ePixelType == EPixelType::None;
}

CQvString CQvImageFormat::ToString() const {
  CQvString sText;
  sText << iWidth << "x" << iHeight << ", " << PixelType2String(ePixelType) << ", "
        << DataType2String(eDataType);
  return sText;
}

const char* CQvImageFormat::PixelType2String(int32_t iId) {
  switch (iId) {
    case EPixelType::None:
      return "None";
    case EPixelType::RGB:
      return "RGB";
    case EPixelType::RGBA:
      return "RGBA";
    case EPixelType::Lum:
      return "Lum";
    case EPixelType::LumA:
      return "LumA";
    case EPixelType::BayerRG:
      return "BayerRG";
    case EPixelType::BayerBG:
      return "BayerBG";
    case EPixelType::BayerGR:
      return "BayerGR";
    case EPixelType::BayerGB:
      return "BayerGB";
    case EPixelType::BGR:
      return "BGR";
    case EPixelType::BGRA:
      return "BGRA";
    default:
      return "Unknown";
  }
}

const char* CQvImageFormat::DataType2String(int32_t iId) {
  switch (iId) {
    case EDataType::Void:
      return "Void";
    case EDataType::Custom_10in16_LSB:
      return "Custom_10in16_LSB";
    case EDataType::Custom_10in16_MSB:
      return "Custom_10in16_MSB";
    case EDataType::Custom_12in16_LSB:
      return "Custom_12in16_LSB";
    case EDataType::Custom_12in16_MSB:
      return "Custom_12in16_MSB";
    case EDataType::Byte:
      return "Byte";
    case EDataType::UByte:
      return "UByte";
    case EDataType::Short:
      return "Short";
    case EDataType::UShort:
      return "UShort";
    case EDataType::Int:
      return "Int";
    case EDataType::UInt:
      return "UInt";
    case EDataType::Float:
      return "Float";
    case EDataType::Double:
      return "Double";
    default:
      return "Unknown";
  }
}

bool CQvImageFormat::operator==(const CQvImageFormat& xOther) const {
  return iWidth == xOther.iWidth && iHeight == xOther.iHeight && eDataType == xOther.eDataType &&
         ePixelType == xOther.ePixelType;
}

}  // namespace Qv
