#pragma once
// Runs one texture fetch at given coordinates through the launch helper on the active backend
// and brings the result back, so that sampling can be checked against hand-worked values.
#include "QvCudaComp.h"
#include "QvDeviceImage2D.h"

namespace QvTest {

float4 ProbeFetch(const Qv::CQvDeviceImage2D& xImage, bool bLinear, bool bNormalized, float x,
                  float y);

}  // namespace QvTest
