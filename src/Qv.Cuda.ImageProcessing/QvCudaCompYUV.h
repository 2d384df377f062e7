#pragma once
#include "QvCudaComp.h"
#include "QvDeviceImage2D.h"

namespace Qv {

// RGBA (8 or 16 bit) to planar YUV 4:2:0, full range, BT.601 analogue weights. The chroma of a
// 2 x 2 block is that of its top left pixel.
class CQvCudaCompYUV : public CQvCudaComp {
 public:
  CQvCudaCompYUV();
  ~CQvCudaCompYUV() override;

  // One Lum image of the source's width and 1.5 times its height: Y, then U, then V, each
  // chroma plane a flat run of samples (the I420 layout). The target is created here.
  void Convert(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource);
  // Three existing Lum planes of the source's data type, written in place. Plane Y governs
  // the size; U and V must hold at least half its width and height.
  void Convert(CQvDeviceImage2D& xPlaneY, CQvDeviceImage2D& xPlaneU, CQvDeviceImage2D& xPlaneV,
               const CQvDeviceImage2D& xSource);
};

}  // namespace Qv
