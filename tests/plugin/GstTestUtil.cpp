#include "GstTestUtil.h"

#include <algorithm>
#include <cmath>

#include "QvMessage.h"

namespace QvTest {

GstBuffer* BufferFromBytes(const std::vector<uint8_t>& xBytes) {
  return gst_buffer_new_memdup(xBytes.data(), xBytes.size());
}

Qv::CQvImage DownloadBufferImage(GstBuffer* pxBuffer) {
  Qv::CQvImage xHost;
  GstMapInfo xMap;
  const bool bMapped = gst_buffer_map(pxBuffer, &xMap, GST_MAP_READ);
  auto* pxImage = bMapped ? reinterpret_cast<Qv::CQvDeviceImage2D*>(xMap.data) : nullptr;
  if (pxImage && pxImage->IsValid())
    pxImage->CopyTo(xHost);
  else
    ADD_FAILURE() << "the buffer carries no device image";
  if (bMapped) gst_buffer_unmap(pxBuffer, &xMap);
  return xHost;
}

Qv::CQvImage SeededImage(int w, int h, Qv::EPixelType::ID ePixel, uint32_t uSeed,
                         Qv::EDataType::ID eData) {
  Qv::CQvImage x(Qv::CQvImageFormat(w, h, ePixel, eData));
  const std::vector<uint8_t> xBytes = RandomBytes(x.GetImageBytes(), uSeed);
  std::memcpy(x.GetDataPtr(), xBytes.data(), xBytes.size());
  return x;
}

std::vector<uint8_t> Bytes(const Qv::CQvImage& x) {
  const auto* p = static_cast<const uint8_t*>(x.GetDataPtr());
  return std::vector<uint8_t>(p, p + x.GetImageBytes());
}

CPipeline::CPipeline(const std::string& sLaunch, GstState eState)
    : m_pxPipeline(gst_parse_launch(sLaunch.c_str(), NULL)) {
  EXPECT_NE(nullptr, m_pxPipeline) << sLaunch;
  if (m_pxPipeline) gst_element_set_state(m_pxPipeline, eState);
}

CPipeline::~CPipeline() {
  if (!m_pxPipeline) return;
  gst_element_set_state(m_pxPipeline, GST_STATE_NULL);
  for (GstElement* px : m_xElements) gst_object_unref(px);
  gst_object_unref(m_pxPipeline);
}

GstElement* CPipeline::Element(const char* szName) {
  m_xElements.push_back(gst_bin_get_by_name(GST_BIN(m_pxPipeline), szName));
  return m_xElements.back();
}

std::vector<std::string> CPipeline::RunToEnd(GstClockTime uTimeout) {
  std::vector<std::string> xTexts;
  GstBus* pxBus = gst_element_get_bus(m_pxPipeline);
  for (;;) {
    GstMessage* pxMsg = gst_bus_timed_pop_filtered(
        pxBus, uTimeout, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR | GST_MESSAGE_WARNING));
    if (!pxMsg) {
      xTexts.push_back("no end");
      break;
    }
    const GstMessageType eType = GST_MESSAGE_TYPE(pxMsg);
    if (eType != GST_MESSAGE_EOS)
      xTexts.push_back((eType == GST_MESSAGE_ERROR ? "error: " : "warning: ") + MessageText(pxMsg));
    gst_message_unref(pxMsg);
    if (eType != GST_MESSAGE_WARNING) break;
  }
  gst_object_unref(pxBus);
  return xTexts;
}

bool CapsAre(GstCaps* pxCaps, const char* szExpected) {
  GstCaps* pxExpected = gst_caps_from_string(szExpected);
  const bool bEqual = pxCaps && gst_caps_is_equal(pxCaps, pxExpected);
  gchar* szCaps = pxCaps ? gst_caps_to_string(pxCaps) : NULL;
  if (!bEqual)
    ADD_FAILURE() << "caps " << (szCaps ? szCaps : "(none)") << "\nexpected " << szExpected;
  g_free(szCaps);
  gst_caps_unref(pxExpected);
  if (pxCaps) gst_caps_unref(pxCaps);
  return bEqual;
}

GstCaps* TransformCaps(GstElement* pxElement, GstPadDirection eDirection, const char* szCaps,
                       const char* szFilter) {
  GstCaps* pxCaps = gst_caps_from_string(szCaps);
  GstCaps* pxFilter = szFilter ? gst_caps_from_string(szFilter) : NULL;
  GstCaps* pxResult = GST_BASE_TRANSFORM_GET_CLASS(pxElement)->transform_caps(
      GST_BASE_TRANSFORM(pxElement), eDirection, pxCaps, pxFilter);
  gst_caps_unref(pxCaps);
  if (pxFilter) gst_caps_unref(pxFilter);
  return pxResult;
}

GstBuffer* DeviceImageBuffer(const Qv::IImage& xImage) {
  // The buffer an element's output step makes, filled as that element would fill it.
  GstBuffer* pxBuffer = NULL;
  EXPECT_EQ(GST_FLOW_OK, PrepareOutputBufferCuda(NULL, NULL, &pxBuffer));
  GstMapInfo xMap;
  EXPECT_TRUE(gst_buffer_map(pxBuffer, &xMap, GST_MAP_WRITE));
  reinterpret_cast<Qv::CQvDeviceImage2D*>(xMap.data)->Create(xImage);
  gst_buffer_unmap(pxBuffer, &xMap);
  return pxBuffer;
}

CHarness Harness(const char* szElements, const char* szCaps) {
  CHarness h(std::strchr(szElements, '!') ? gst_harness_new_parse(szElements)
                                          : gst_harness_new(szElements),
             gst_harness_teardown);
  if (szCaps) gst_harness_set_src_caps_str(h.get(), szCaps);
  return h;
}

std::string PushCaptured(GstHarness* pxHarness, GstBuffer* pxIn, GstFlowReturn eExpected) {
  Qv::CMessageCapture xMessages;
  const GstFlowReturn eFlow = gst_harness_push(pxHarness, pxIn);
  const std::string sOut = xMessages.Text();
  EXPECT_EQ(eExpected, eFlow) << sOut;
  return sOut;
}

GstBuffer* WithMeta(GstBuffer* pxBuffer, GstClockTime uPts, float fExposure, float fGain) {
  GST_BUFFER_PTS(pxBuffer) = uPts;
  GST_BUFFER_DURATION(pxBuffer) = GST_SECOND / 30;
  auto* pxMeta =
      reinterpret_cast<MyMetaInfo*>(gst_buffer_add_meta(pxBuffer, my_meta_get_info(), NULL));
  pxMeta->exposure = fExposure;
  pxMeta->gain = fGain;
  return pxBuffer;
}

void ExpectMeta(GstBuffer* pxBuffer, GstClockTime uPts, float fExposure, float fGain) {
  EXPECT_EQ(uPts, GST_BUFFER_PTS(pxBuffer));
  EXPECT_EQ(GST_SECOND / 30, GST_BUFFER_DURATION(pxBuffer));
  auto* pxMeta =
      reinterpret_cast<MyMetaInfo*>(gst_buffer_get_meta(pxBuffer, MY_META_INFO_API_TYPE));
  ASSERT_NE(nullptr, pxMeta);
  EXPECT_EQ(std::pair(fExposure, fGain), std::pair(pxMeta->exposure, pxMeta->gain));
}

std::vector<uint8_t> DemosaicReference(const std::vector<uint8_t>& xRaw, int W, int H, int iRedX,
                                       int iRedY) {
  std::vector<uint8_t> xOut(static_cast<size_t>(W) * H * 4, 255);
  const float r = 1.4285715f, g = 1.0f, b = 1.1363636f;
  // Gains of the centre (and two away), the horizontal, vertical and diagonal neighbours by
  // phase: 0 red site, 1 green in a red row, 2 green in a blue row, 3 blue site.
  const float aGains[4][4] = {{r, g, g, b}, {g, r, b, g}, {g, b, r, g}, {b, g, g, r}};
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) {
      const auto P = [&](int dx, int dy) {
        return xRaw[std::clamp(y + dy, 0, H - 1) * W + std::clamp(x + dx, 0, W - 1)] / 255.0f;
      };
      const int iPhase = ((x + iRedX) & 1) + 2 * ((y + iRedY) & 1);
      const auto [c, h, v, d] = aGains[iPhase];
      const float C = c * P(0, 0);
      const float X = std::fma(c, P(2, 0), c * P(-2, 0));
      const float Y = std::fma(c, P(0, 2), c * P(0, -2));
      const float Hs = std::fma(h, P(1, 0), h * P(-1, 0));
      const float V = std::fma(v, P(0, 1), v * P(0, -1));
      float D = d * P(-1, -1);
      for (auto [dx, dy] : {std::pair{-1, 1}, {1, -1}, {1, 1}}) D = std::fma(d, P(dx, dy), D);
      const float T = std::fma(-2.0f, D, 10.0f * C);
      const float EH = std::fma(-2.0f, X, std::fma(8.0f, Hs, T) + Y) * 0.0625f;
      const float EV = std::fma(-2.0f, Y, std::fma(8.0f, V, T) + X) * 0.0625f;
      const float EG = (std::fma(2.0f, Hs, std::fma(2.0f, V, 4.0f * C)) - (X + Y)) * 0.125f;
      const float ED = std::fma(-3.0f, X + Y, std::fma(4.0f, D, 12.0f * C)) * 0.0625f;
      const float aRgb[4][3] = {{C, EG, ED}, {EH, C, EV}, {EV, C, EH}, {ED, EG, C}};
      for (int i = 0; i < 3; ++i)
        xOut[4 * (y * W + x) + i] =
            static_cast<uint8_t>(std::fmax(std::fmin(255.0f, aRgb[iPhase][i] * 255.0f), 0.0f));
    }
  return xOut;
}

}  // namespace QvTest
