#pragma once
// Helpers for building test images: seeded random bytes and device images filled from them.
#include <cstdint>
#include <vector>

#include "QvDeviceImage2D.h"
#include "QvImage.h"

namespace QvTest {

// Deterministic bytes (a small LCG), so that failures reproduce.
std::vector<uint8_t> RandomBytes(size_t uCount, uint32_t uSeed);

// A host image of the format filled with seeded random bytes.
Qv::CQvImage RandomImage(const Qv::CQvImageFormat& xFormat, uint32_t uSeed);

bool BytesEqual(const Qv::IImage& a, const Qv::IImage& b);

// Name of the backend in use, for messages.
const char* BackendName();

}  // namespace QvTest
