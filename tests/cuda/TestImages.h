#pragma once
// Helpers for building test images: seeded random bytes and device images filled from them.
#include <cstdint>
#include <vector>

#include "QvDeviceImage2D.h"
#include "QvImage.h"
#include "QvTestRandom.h"

namespace QvTest {

// A host image of the format filled with seeded random bytes.
Qv::CQvImage RandomImage(const Qv::CQvImageFormat& xFormat, uint32_t uSeed);

bool BytesEqual(const Qv::IImage& a, const Qv::IImage& b);

// Name of the backend in use, for messages.
const char* BackendName();

}  // namespace QvTest
