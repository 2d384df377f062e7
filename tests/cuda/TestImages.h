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

// A device image whose elements (channels of all pixels, in order) take the given raw values:
// 0 to 255 for UByte, 0 to 65535 for UShort, anything for Float. One value fills the image.
Qv::CQvDeviceImage2D DeviceImage(const Qv::CQvImageFormat& xFormat,
                                 const std::vector<double>& xRaw);

// The raw elements of a device image, in order.
std::vector<double> Elements(const Qv::CQvDeviceImage2D& xImage);

// Name of the backend in use, for messages.
const char* BackendName();

}  // namespace QvTest
