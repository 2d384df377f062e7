#pragma once
// Runs texture fetches at given coordinates through the launch helper on the active backend
// and brings the results back, so that sampling can be checked against hand-worked values.
#include <vector>

#include "QvCudaComp.h"
#include "QvDeviceImage2D.h"

namespace QvTest {

struct SCoord {
  float x, y;
};

std::vector<float4> ProbeFetches(const Qv::CQvDeviceImage2D& xImage, bool bLinear,
                                 bool bNormalizedCoordinates, const std::vector<SCoord>& xCoords);

// Writes value x + y * 1000 into every pixel of an L_f image through the launch helper.
void FillIndexImage(Qv::CQvCudaComp& xComp, Qv::CQvDeviceImage2D& xImage, int iBlockX, int iBlockY);

}  // namespace QvTest
