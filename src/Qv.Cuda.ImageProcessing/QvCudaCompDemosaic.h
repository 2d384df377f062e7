#pragma once
#include "QvCudaComp.h"
#include "QvDeviceImage2D.h"

namespace Qv {

// Bayer mosaic to RGBA of the same size and bit depth, with white-balance gains.
class CQvCudaCompDemosaic : public CQvCudaComp {
 public:
  CQvCudaCompDemosaic();
  ~CQvCudaCompDemosaic() override;

  // Source: a bayer image of UByte or UShort data; target: created as RGBA of the same size
  // and data type. Failures arrive as "Error demosaicing" around the specific cause.
  void Debayer(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource, float fRedGain,
               float fGreenGain, float fBlueGain);
};

}  // namespace Qv
