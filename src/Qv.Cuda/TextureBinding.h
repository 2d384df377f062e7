#pragma once
#include "QvDeviceImage2D.h"
#include "QvSampling.h"

namespace Qv {

// Scoped binding of a device image to a texture: the constructor binds, the destructor
// unbinds. Kernels receive Get() by value.
class CTextureBinding {
 public:
  CTextureBinding();
  CTextureBinding(const CQvDeviceImage2D& xImage, bool bLinearFilter,
                  bool bNormalizedCoordinates = false,
                  cudaTextureAddressMode eAddressMode = cudaAddressModeClamp);
  ~CTextureBinding();
  CTextureBinding(const CTextureBinding&) = delete;
  CTextureBinding& operator=(const CTextureBinding&) = delete;

  void Bind(const CQvDeviceImage2D& xImage, bool bLinearFilter, bool bNormalizedCoordinates,
            cudaTextureAddressMode eAddressMode);
  void Unbind();
  bool IsBound() const { return m_bBound; }
  const STexture2D& Get() const { return m_xTexture; }

 private:
  STexture2D m_xTexture;
  bool m_bBound = false;
};

}  // namespace Qv
