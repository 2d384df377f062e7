#include "TextureBinding.h"

#include <cstring>

#include "QvCudaException.h"
#include "QvDevice.h"

namespace Qv {

CTextureBinding::CTextureBinding() : m_xTexture() {}

CTextureBinding::CTextureBinding(const CQvDeviceImage2D& xImage, bool bLinearFilter,
                                 bool bNormalizedCoordinates, cudaTextureAddressMode eAddressMode)
    : CTextureBinding() {
  Bind(xImage, bLinearFilter, bNormalizedCoordinates, eAddressMode);
}

CTextureBinding::~CTextureBinding() {
  try {
    Unbind();
  } catch (...) {
  }
}

void CTextureBinding::Bind(const CQvDeviceImage2D& xImage, bool bLinearFilter,
                           bool bNormalizedCoordinates, cudaTextureAddressMode eAddressMode) {
  if (!xImage.IsValid()) QV_THROW("Image is invalid");
  try {
    Unbind();
    const cudaChannelFormatDesc xChannels = xImage.GetCudaChannelFormatDesc();
    const int iChannels =
        (xChannels.x > 0) + (xChannels.y > 0) + (xChannels.z > 0) + (xChannels.w > 0);
    if (iChannels != 1 && iChannels != 2 && iChannels != 4) {
      CQvString sText("Image format cannot be read through a texture: ");
      sText << xImage.GetFormat().ToString();
      QV_THROW(sText.ToCString());
    }
    m_xTexture = STexture2D();
    m_xTexture.xImage = xImage.GetDesc();
    m_xTexture.bLinearFilter = bLinearFilter ? 1 : 0;
    m_xTexture.bNormalizedCoordinates = bNormalizedCoordinates ? 1 : 0;
    if (Device::IsCuda()) {
      cudaResourceDesc xResource;
      std::memset(&xResource, 0, sizeof(xResource));
      xResource.resType = cudaResourceTypePitch2D;
      xResource.res.pitch2D.devPtr = xImage.GetDevicePointer();
      xResource.res.pitch2D.desc = xChannels;
      xResource.res.pitch2D.width = static_cast<size_t>(xImage.GetFormat().iWidth);
      xResource.res.pitch2D.height = static_cast<size_t>(xImage.GetFormat().iHeight);
      xResource.res.pitch2D.pitchInBytes = xImage.GetDevicePitch();
      cudaTextureDesc xDesc;
      std::memset(&xDesc, 0, sizeof(xDesc));
      xDesc.addressMode[0] = xDesc.addressMode[1] = xDesc.addressMode[2] = eAddressMode;
      xDesc.filterMode = bLinearFilter ? cudaFilterModeLinear : cudaFilterModePoint;
      xDesc.readMode = xChannels.f == cudaChannelFormatKindFloat ? cudaReadModeElementType
                                                                 : cudaReadModeNormalizedFloat;
      xDesc.normalizedCoords = bNormalizedCoordinates ? 1 : 0;
      QV_CUDA_CHECK(cudaCreateTextureObject(&m_xTexture.hTexture, &xResource, &xDesc, nullptr),
                    "Error binding device image to CUDA texture");
    } else if (eAddressMode != cudaAddressModeClamp) {
      QV_THROW("Only clamp addressing is emulated on the host backend");
    }
    m_bBound = true;
  } catch (const CQvCudaException&) {
    throw;
  } catch (const CQvException& e) {
    QV_RETHROW("Error binding device image to CUDA texture", e);
  }
}

void CTextureBinding::Unbind() {
  if (!m_bBound) return;
  m_bBound = false;
  if (m_xTexture.hTexture) {
    const cudaTextureObject_t hTexture = m_xTexture.hTexture;
    m_xTexture.hTexture = 0;
    QV_CUDA_CHECK(cudaDestroyTextureObject(hTexture), "Error unbinding CUDA texture");
  }
}

}  // namespace Qv
