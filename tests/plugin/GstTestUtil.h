#pragma once
// Helpers shared by the element tests.
#include <gst/gst.h>

#include <cstdint>
#include <vector>

#include "QvImage.h"
#include "QvTestRandom.h"

namespace QvTest {

// A buffer holding a copy of the bytes.
GstBuffer* BufferFromBytes(const std::vector<uint8_t>& xBytes);

// The device image carried by a buffer, copied to the host. Fails the test if there is none.
Qv::CQvImage DownloadBufferImage(GstBuffer* pxBuffer);

// Seeded bytes for frames.
inline std::vector<uint8_t> FrameBytes(size_t uCount, uint32_t uSeed) {
  return RandomBytes(uCount, uSeed);
}

bool CapsEqualString(const GstCaps* pxCaps, const char* szExpected);

// A buffer whose one memory is a device image ("QvCudaDevImage") holding the host image, as an
// upload or a device transform would hand it on.
GstBuffer* DeviceImageBuffer(const Qv::IImage& xImage);

}  // namespace QvTest
