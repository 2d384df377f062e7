#pragma once
// Helpers shared by the element tests.
#include <gst/base/gstbasetransform.h>
#include <gst/check/gstharness.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "QvBusyCores.h"
#include "QvDeviceImage2D.h"
#include "QvMessage.h"
#include "QvTestRandom.h"
#include "common/gstUtil.h"
#include "gstqvHostElements.h"
#include "plugin.h"

namespace QvTest {

GstBuffer* BufferFromBytes(const std::vector<uint8_t>& xBytes);
// The device image carried by a buffer, copied to the host. Fails the test if there is none.
Qv::CQvImage DownloadBufferImage(GstBuffer* pxBuffer);
inline std::vector<uint8_t> FrameBytes(size_t uCount, uint32_t uSeed) {
  return RandomBytes(uCount, uSeed);
}
Qv::CQvImage SeededImage(int w, int h, Qv::EPixelType::ID ePixel, uint32_t uSeed,
                         Qv::EDataType::ID eData = Qv::EDataType::UByte);
std::vector<uint8_t> Bytes(const Qv::CQvImage& x);

bool CapsAre(GstCaps* pxCaps, const char* szExpected);  // takes the caps
// What a transform element's transform_caps gives for the caps text.
GstCaps* TransformCaps(GstElement* pxElement, GstPadDirection eDirection, const char* szCaps,
                       const char* szFilter = NULL);

// A harness around the element (or "a ! b" description) with the caps pushed, torn down with it.
using CHarness = std::unique_ptr<GstHarness, decltype(&gst_harness_teardown)>;
CHarness Harness(const char* szElements, const char* szCaps);

// The text of an error or warning message: its GError's message.
inline std::string MessageText(GstMessage* pxMessage) {
  const GValue* pxError = gst_structure_get_value(gst_message_get_structure(pxMessage), "gerror");
  return static_cast<const GError*>(g_value_get_boxed(pxError))->message;
}

// A pipeline from a launch line, set to the state; stopped and freed with the object.
class CPipeline {
 public:
  explicit CPipeline(const std::string& sLaunch, GstState eState = GST_STATE_PLAYING);
  ~CPipeline();
  CPipeline(const CPipeline&) = delete;
  CPipeline& operator=(const CPipeline&) = delete;
  GstElement* Get() const { return m_pxPipeline; }
  // An element by name; it lives as long as the pipeline.
  GstElement* Element(const char* szName);
  // The texts of the warnings and errors on the bus up to EOS or an error, as "warning: text"
  // and "error: text"; "no end" where neither came within the time.
  std::vector<std::string> RunToEnd(GstClockTime uTimeout = 10 * GST_SECOND);

 private:
  GstElement* m_pxPipeline;
  std::vector<GstElement*> m_xElements;
};

// A buffer of one device image memory ("QvCudaDevImage"), as an upload would hand it on.
GstBuffer* DeviceImageBuffer(const Qv::IImage& xImage);
// Pushes one buffer, expecting the flow, and returns what the elements printed meanwhile.
std::string PushCaptured(GstHarness* pxHarness, GstBuffer* pxIn, GstFlowReturn eExpected);
// The time and camera settings of a buffer, and the check that an output carries them.
GstBuffer* WithMeta(GstBuffer* pxBuffer, GstClockTime uPts, float fExposure, float fGain);
void ExpectMeta(GstBuffer* pxBuffer, GstClockTime uPts, float fExposure, float fGain);

// The debayer element's RGBA output worked out from the Malvar-He-Cutler formula in single
// precision, one fused multiply-add per added product in the formula's order, with the fixed
// gains (red 1 / 0.7, green 1, blue 1 / 0.88) and 8-bit storing (scale, clamp, truncate). Red
// sits at (iRedX, iRedY) of each 2 x 2 block; samples past the edge repeat it.
std::vector<uint8_t> DemosaicReference(const std::vector<uint8_t>& xRaw, int W, int H, int iRedX,
                                       int iRedY);

}  // namespace QvTest
