#pragma once
// One texture fetch at given coordinates, run through the launch helper on the active backend.
#include "QvCudaComp.h"
#include "QvDeviceImage2D.h"

namespace QvTest {

float4 ProbeFetch(const Qv::CQvDeviceImage2D& xImage, bool bLinear, bool bNormalized, float x,
                  float y);

}  // namespace QvTest
