// The Mix kernels whose input1 is of an L class.
#include "MixDispatch.cuh"

namespace Qv {

template void CQvCudaCompConvolve::_MixA<L_uc>(CQvDeviceImage2D&, const CQvDeviceImage2D&,
                                               const CQvDeviceImage2D&, float, bool,
                                               const STexture2D&);
template void CQvCudaCompConvolve::_MixA<L_us>(CQvDeviceImage2D&, const CQvDeviceImage2D&,
                                               const CQvDeviceImage2D&, float, bool,
                                               const STexture2D&);
template void CQvCudaCompConvolve::_MixA<L_f>(CQvDeviceImage2D&, const CQvDeviceImage2D&,
                                              const CQvDeviceImage2D&, float, bool,
                                              const STexture2D&);

}  // namespace Qv
