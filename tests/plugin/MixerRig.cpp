#include "MixerRig.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>

#include "GstTestUtil.h"
#include "QvDeviceImage2D.h"
#include "gstqvCudaMemory.h"

namespace QvTest {
namespace {

constexpr int kPending = -1000;

GstStaticPadTemplate xSrcTemplate =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);
GstStaticPadTemplate xSinkTemplate =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);

int g_iStreamCounter = 0;

}  // namespace

GstBuffer* TimedBuffer(GstClockTime uPts, GstClockTime uDuration, size_t uBytes) {
  GstBuffer* pxBuffer = gst_buffer_new_allocate(NULL, uBytes, NULL);
  gst_buffer_memset(pxBuffer, 0, 0x11, uBytes);
  GST_BUFFER_PTS(pxBuffer) = uPts;
  GST_BUFFER_DURATION(pxBuffer) = uDuration;
  return pxBuffer;
}

GstBuffer* DeviceImageBuffer(int iWidth, int iHeight, const std::vector<uint8_t>& xBytes,
                             GstClockTime uPts, GstClockTime uDuration) {
  Qv::CQvImageMoniker xMoniker;
  xMoniker.Create(iWidth, iHeight, Qv::EPixelType::BayerGR, Qv::EDataType::UByte,
                  const_cast<uint8_t*>(xBytes.data()));
  GstBuffer* pxBuffer = QvTest::DeviceImageBuffer(xMoniker);
  GST_BUFFER_PTS(pxBuffer) = uPts;
  GST_BUFFER_DURATION(pxBuffer) = uDuration;
  return pxBuffer;
}

/* CMixInput */

CMixInput::CMixInput(GstElement* pxMixer, const char* szPadName) : m_pxMixer(pxMixer) {
  m_pxMixerPad = gst_element_request_pad_simple(pxMixer, szPadName ? szPadName : "sink_%u");
  if (!m_pxMixerPad) return;
  m_pxSrc = gst_pad_new_from_static_template(&xSrcTemplate, "src");
  gst_pad_set_element_private(m_pxSrc, this);
  gst_pad_set_event_function(m_pxSrc, OnEvent);
  gst_pad_set_active(m_pxSrc, TRUE);
  EXPECT_EQ(GST_PAD_LINK_OK, gst_pad_link(m_pxSrc, m_pxMixerPad));
  gchar* szStream = g_strdup_printf("test-input-%d", g_atomic_int_add(&g_iStreamCounter, 1));
  Event(gst_event_new_stream_start(szStream));
  g_free(szStream);
  m_xThread = std::thread([this] { Run(); });
}

CMixInput::~CMixInput() {
  Stop();
  for (GstBuffer* pxBuffer : m_xKept) gst_buffer_unref(pxBuffer);
  for (GstEvent* pxEvent : m_xUpstream) gst_event_unref(pxEvent);
  if (m_pxSrc) {
    if (m_pxMixerPad && gst_pad_is_linked(m_pxSrc)) gst_pad_unlink(m_pxSrc, m_pxMixerPad);
    gst_pad_set_active(m_pxSrc, FALSE);
    gst_object_unref(m_pxSrc);
  }
  if (m_pxMixerPad) gst_object_unref(m_pxMixerPad);
}

void CMixInput::Stop() {
  {
    std::lock_guard<std::mutex> xGuard(m_xMutex);
    m_bStop = true;
    for (auto& x : m_xQueue) gst_mini_object_unref(x.second);
    m_xQueue.clear();
  }
  m_xCond.notify_all();
  if (m_xThread.joinable()) m_xThread.join();
}

size_t CMixInput::Queue(GstMiniObject* pxItem) {
  size_t uTicket;
  {
    std::lock_guard<std::mutex> xGuard(m_xMutex);
    uTicket = m_xResults.size();
    m_xResults.push_back(kPending);
    m_xQueue.emplace_back(uTicket, pxItem);
  }
  m_xCond.notify_all();
  return uTicket;
}

size_t CMixInput::Caps(const char* szCaps, bool bSegment) {
  const size_t uTicket = Event(gst_event_new_caps(gst_caps_from_string(szCaps)));
  if (bSegment) Segment();
  return uTicket;
}

size_t CMixInput::Segment() {
  GstSegment xSegment;
  gst_segment_init(&xSegment, GST_FORMAT_TIME);
  return Event(gst_event_new_segment(&xSegment));
}

size_t CMixInput::Event(GstEvent* pxEvent) {
  return Queue(GST_MINI_OBJECT_CAST(pxEvent));
}

size_t CMixInput::Push(GstBuffer* pxBuffer) {
  m_xKept.push_back(gst_buffer_ref(pxBuffer));
  return Queue(GST_MINI_OBJECT_CAST(pxBuffer));
}

GstFlowReturn CMixInput::Wait(size_t uTicket, int iMilliseconds) {
  std::unique_lock<std::mutex> xLock(m_xMutex);
  const bool bDone = m_xCond.wait_for(xLock, std::chrono::milliseconds(iMilliseconds), [&] {
    return uTicket < m_xResults.size() && m_xResults[uTicket] != kPending;
  });
  return bDone ? static_cast<GstFlowReturn>(m_xResults[uTicket]) : GST_FLOW_CUSTOM_ERROR;
}

void CMixInput::Run() {
  for (;;) {
    std::pair<size_t, GstMiniObject*> xItem;
    {
      std::unique_lock<std::mutex> xLock(m_xMutex);
      m_xCond.wait(xLock, [&] { return m_bStop || !m_xQueue.empty(); });
      if (m_bStop) return;
      xItem = m_xQueue.front();
      m_xQueue.pop_front();
    }
    int iResult;
    if (GST_IS_BUFFER(xItem.second))
      iResult = gst_pad_push(m_pxSrc, GST_BUFFER_CAST(xItem.second));
    else
      iResult =
          gst_pad_push_event(m_pxSrc, GST_EVENT_CAST(xItem.second)) ? GST_FLOW_OK : GST_FLOW_ERROR;
    {
      std::lock_guard<std::mutex> xGuard(m_xMutex);
      m_xResults[xItem.first] = iResult;
    }
    m_xCond.notify_all();
  }
}

std::vector<GstEventType> CMixInput::UpstreamEventTypes() {
  std::lock_guard<std::mutex> xGuard(m_xMutex);
  std::vector<GstEventType> xTypes;
  for (GstEvent* pxEvent : m_xUpstream) xTypes.push_back(GST_EVENT_TYPE(pxEvent));
  return xTypes;
}

gboolean CMixInput::OnEvent(GstPad* pad, GstObject* /*parent*/, GstEvent* event) {
  auto* self = static_cast<CMixInput*>(gst_pad_get_element_private(pad));
  // Linking sends one reconfigure event of its own; it says nothing about the mixer.
  if (GST_EVENT_TYPE(event) == GST_EVENT_RECONFIGURE) {
    gst_event_unref(event);
    return TRUE;
  }
  std::lock_guard<std::mutex> xGuard(self->m_xMutex);
  self->m_xUpstream.push_back(event);
  return TRUE;
}

/* CMixOutput */

CMixOutput::CMixOutput(GstElement* pxMixer, const char* szAllowedCaps) {
  if (szAllowedCaps) m_pxAllowed = gst_caps_from_string(szAllowedCaps);
  m_pxSink = gst_pad_new_from_static_template(&xSinkTemplate, "sink");
  gst_pad_set_element_private(m_pxSink, this);
  gst_pad_set_chain_function(m_pxSink, OnChain);
  gst_pad_set_event_function(m_pxSink, OnEvent);
  gst_pad_set_query_function(m_pxSink, OnQuery);
  gst_pad_set_active(m_pxSink, TRUE);
  GstPad* pxSrc = gst_element_get_static_pad(pxMixer, "src");
  EXPECT_EQ(GST_PAD_LINK_OK, gst_pad_link(pxSrc, m_pxSink));
  gst_object_unref(pxSrc);
}

CMixOutput::~CMixOutput() {
  Release();
  gst_pad_set_active(m_pxSink, FALSE);
  gst_object_unref(m_pxSink);
  if (m_pxAllowed) gst_caps_unref(m_pxAllowed);
}

void CMixOutput::Release() {
  std::lock_guard<std::mutex> xGuard(m_xMutex);
  for (SOutBuffer& x : m_xBuffers) {
    if (x.pxBuffer) gst_buffer_unref(x.pxBuffer);
    x.pxBuffer = nullptr;
  }
  for (GstEvent* pxEvent : m_xEvents) gst_event_unref(pxEvent);
  m_xEvents.clear();
}

GstFlowReturn CMixOutput::OnChain(GstPad* pad, GstObject* /*parent*/, GstBuffer* buffer) {
  auto* self = static_cast<CMixOutput*>(gst_pad_get_element_private(pad));
  SOutBuffer x;
  x.pxIdentity = buffer;
  x.uPts = GST_BUFFER_PTS(buffer);
  x.uDuration = GST_BUFFER_DURATION(buffer);
  x.uSize = gst_buffer_get_size(buffer);
  x.pxPool = buffer->pool;
  x.bFromPool = buffer->pool != NULL;
  GstMemory* pxMemory = gst_buffer_n_memory(buffer) > 0 ? gst_buffer_peek_memory(buffer, 0) : NULL;
  x.bDeviceImage = pxMemory && gst_memory_is_type(pxMemory, QV_CUDA_MEMORY_NAME);
  x.bSysMem = pxMemory && gst_memory_is_type(pxMemory, "MySysMem");
  // Unwritten selector pool buffers go back at once, so that long runs never exhaust the pool.
  if (x.bFromPool && !x.bDeviceImage) {
    x.pxBuffer = nullptr;
    gst_buffer_unref(buffer);
  } else {
    x.pxBuffer = buffer;
  }
  {
    std::lock_guard<std::mutex> xGuard(self->m_xMutex);
    self->m_xBuffers.push_back(x);
  }
  self->m_xCond.notify_all();
  return GST_FLOW_OK;
}

gboolean CMixOutput::OnEvent(GstPad* pad, GstObject* /*parent*/, GstEvent* event) {
  auto* self = static_cast<CMixOutput*>(gst_pad_get_element_private(pad));
  {
    std::lock_guard<std::mutex> xGuard(self->m_xMutex);
    self->m_xEvents.push_back(event);
  }
  self->m_xCond.notify_all();
  return TRUE;
}

gboolean CMixOutput::OnQuery(GstPad* pad, GstObject* parent, GstQuery* query) {
  auto* self = static_cast<CMixOutput*>(gst_pad_get_element_private(pad));
  switch (GST_QUERY_TYPE(query)) {
    case GST_QUERY_CAPS: {
      GstCaps* pxFilter = NULL;
      gst_query_parse_caps(query, &pxFilter);
      GstCaps* pxCaps = self->m_pxAllowed ? gst_caps_ref(self->m_pxAllowed) : gst_caps_new_any();
      if (pxFilter) {
        GstCaps* pxTmp = gst_caps_intersect_full(pxFilter, pxCaps, GST_CAPS_INTERSECT_FIRST);
        gst_caps_unref(pxCaps);
        pxCaps = pxTmp;
      }
      gst_query_set_caps_result(query, pxCaps);
      gst_caps_unref(pxCaps);
      return TRUE;
    }
    case GST_QUERY_ACCEPT_CAPS: {
      GstCaps* pxCaps = NULL;
      gst_query_parse_accept_caps(query, &pxCaps);
      gst_query_set_accept_caps_result(
          query, !self->m_pxAllowed || gst_caps_can_intersect(pxCaps, self->m_pxAllowed));
      return TRUE;
    }
    default:
      return gst_pad_query_default(pad, parent, query);
  }
}

bool CMixOutput::WaitForEos(int iMilliseconds) {
  std::unique_lock<std::mutex> xLock(m_xMutex);
  return m_xCond.wait_for(xLock, std::chrono::milliseconds(iMilliseconds), [&] {
    for (GstEvent* pxEvent : m_xEvents)
      if (GST_EVENT_TYPE(pxEvent) == GST_EVENT_EOS) return true;
    return false;
  });
}

bool CMixOutput::WaitForBuffers(size_t uCount, int iMilliseconds) {
  std::unique_lock<std::mutex> xLock(m_xMutex);
  return m_xCond.wait_for(xLock, std::chrono::milliseconds(iMilliseconds),
                          [&] { return m_xBuffers.size() >= uCount; });
}

std::vector<SOutBuffer> CMixOutput::Buffers() {
  std::lock_guard<std::mutex> xGuard(m_xMutex);
  return m_xBuffers;
}

std::vector<GstEvent*> CMixOutput::Events() {
  std::lock_guard<std::mutex> xGuard(m_xMutex);
  return m_xEvents;
}

std::vector<GstEventType> CMixOutput::EventTypes() {
  std::lock_guard<std::mutex> xGuard(m_xMutex);
  std::vector<GstEventType> xTypes;
  for (GstEvent* pxEvent : m_xEvents) xTypes.push_back(GST_EVENT_TYPE(pxEvent));
  return xTypes;
}

/* CMixerRig */

CMixerRig::CMixerRig(const char* szType, const char* szAllowedCaps) {
  m_pxMixer = gst_element_factory_make("qvcudamix", NULL);
  EXPECT_NE(nullptr, m_pxMixer);
  gst_object_ref_sink(m_pxMixer);
  if (szType) g_object_set(m_pxMixer, "type", szType, NULL);
  m_pxBus = gst_bus_new();
  gst_element_set_bus(m_pxMixer, m_pxBus);
  m_pxOut = std::make_unique<CMixOutput>(m_pxMixer, szAllowedCaps);
}

CMixerRig::~CMixerRig() {
  gst_element_set_state(m_pxMixer, GST_STATE_NULL);
  for (auto& pxInput : m_xInputs) pxInput->Stop();
  Messages(GST_MESSAGE_ANY);
  for (GstMessage* pxMessage : m_xMessages) gst_message_unref(pxMessage);
  m_xInputs.clear();
  m_pxOut->Release();
  gst_element_set_bus(m_pxMixer, NULL);
  gst_object_unref(m_pxMixer);
  m_pxOut.reset();
  gst_bus_set_flushing(m_pxBus, TRUE);
  gst_object_unref(m_pxBus);
}

CMixInput& CMixerRig::AddInput(const char* szPadName) {
  m_xInputs.push_back(std::make_unique<CMixInput>(m_pxMixer, szPadName));
  return *m_xInputs.back();
}

std::vector<CMixInput*> CMixerRig::AddInputs(size_t uCount) {
  std::vector<CMixInput*> xInputs;
  for (size_t i = 0; i < uCount; ++i) xInputs.push_back(&AddInput());
  return xInputs;
}

void CMixerRig::Play() {
  EXPECT_EQ(GST_STATE_CHANGE_SUCCESS, gst_element_set_state(m_pxMixer, GST_STATE_PLAYING));
}

gboolean CMixerRig::SelectCamera(int iCamera) {
  GstStructure* pxStructure = gst_structure_new("eventStruct", "camID", G_TYPE_INT, iCamera, NULL);
  return m_pxOut->SendUpstream(gst_event_new_custom(GST_EVENT_CUSTOM_UPSTREAM, pxStructure));
}

std::vector<GstMessage*> CMixerRig::Messages(GstMessageType eTypes) {
  while (GstMessage* pxMessage = gst_bus_pop(m_pxBus)) m_xMessages.push_back(pxMessage);
  std::vector<GstMessage*> xFound;
  for (GstMessage* pxMessage : m_xMessages)
    if (GST_MESSAGE_TYPE(pxMessage) & eTypes) xFound.push_back(pxMessage);
  return xFound;
}

int CapsInt(GstCaps* pxCaps, const char* szField) {
  int iValue = -1;
  if (pxCaps && gst_caps_get_size(pxCaps) > 0)
    gst_structure_get_int(gst_caps_get_structure(pxCaps, 0), szField, &iValue);
  return iValue;
}

std::string CapsString(GstCaps* pxCaps, const char* szField) {
  if (!pxCaps || gst_caps_get_size(pxCaps) == 0) return "";
  const gchar* sz = gst_structure_get_string(gst_caps_get_structure(pxCaps, 0), szField);
  return sz ? sz : "";
}

std::pair<int, int> CapsFraction(GstCaps* pxCaps, const char* szField) {
  int n = -1, d = -1;
  if (pxCaps && gst_caps_get_size(pxCaps) > 0)
    gst_structure_get_fraction(gst_caps_get_structure(pxCaps, 0), szField, &n, &d);
  return {n, d};
}

}  // namespace QvTest
