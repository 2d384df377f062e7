#include "gstUtil.h"

#include <cstdio>

#include "gstqvCudaMemory.h"
#include "plugin.h"

GstCaps* defaultNegotiation(const gchar* sinkCapsText, const gchar* srcCapsText,
                            GstPadDirection direction, GstCaps* caps, GstCaps* filter) {
  // Caps of the source pad ask for the sink side, and the other way round.
  GstCaps* pxResult = gst_caps_from_string(direction == GST_PAD_SRC ? sinkCapsText : srcCapsText);
  if (!pxResult) return gst_caps_new_empty();
  if (caps && gst_caps_get_size(caps) > 0 && gst_caps_get_size(pxResult) > 0) {
    const GstStructure* pxIn = gst_caps_get_structure(caps, 0);
    GstStructure* pxOut = gst_caps_get_structure(pxResult, 0);
    for (const char* szField : {"width", "height", "framerate"}) {
      const GValue* pxValue = gst_structure_get_value(pxIn, szField);
      if (pxValue) gst_structure_set_value(pxOut, szField, pxValue);
    }
  }
  if (!filter) return pxResult;
  GstCaps* pxFiltered = gst_caps_intersect_full(filter, pxResult, GST_CAPS_INTERSECT_FIRST);
  gst_caps_unref(pxResult);
  return pxFiltered;
}

GstFlowReturn PrepareOutputBufferCuda(GstBaseTransform* trans, GstBuffer* /*inbuf*/,
                                      GstBuffer** outbuf) {
  GstAllocator* pxAllocator = gst_allocator_find(QV_CUDA_MEMORY_NAME);
  if (!pxAllocator) {
    // No upload element registered the allocator yet: register it here.
    my_memory_init();
    pxAllocator = gst_allocator_find(QV_CUDA_MEMORY_NAME);
  }
  GstAllocationParams xParams;
  gst_allocation_params_init(&xParams);
  *outbuf = gst_buffer_new_allocate(pxAllocator, 1, &xParams);
  if (pxAllocator) gst_object_unref(pxAllocator);
  if (!*outbuf) {
    GST_ERROR_OBJECT(trans, "cannot allocate a device image buffer");
    return GST_FLOW_ERROR;
  }
  return GST_FLOW_OK;
}

void CopyMetData(GstBuffer* outbuf, GstBuffer* inbuf) {
  gst_buffer_copy_into(outbuf, inbuf, GST_BUFFER_COPY_TIMESTAMPS, 0, -1);
  MyMetaInfo* pxIn =
      reinterpret_cast<MyMetaInfo*>(gst_buffer_get_meta(inbuf, MY_META_INFO_API_TYPE));
  if (!pxIn) return;
  MyMetaInfo* pxOut =
      reinterpret_cast<MyMetaInfo*>(gst_buffer_add_meta(outbuf, my_meta_get_info(), NULL));
  if (!pxOut) return;
  pxOut->exposure = pxIn->exposure;
  pxOut->gain = pxIn->gain;
}

void HandleException(const Qv::IException& exception) {
  std::fputs("exception catched: \n", stdout);
  std::fflush(stdout);
  for (const Qv::IException* pxEx = &exception; pxEx; pxEx = pxEx->GetInnerException()) {
    const char* szFile = pxEx->GetFile();
    const char* szText = pxEx->GetMessageText();
    std::printf("%s : %d  :   %s\n", szFile ? szFile : "", pxEx->GetLine(), szText ? szText : "");
    std::fflush(stdout);
  }
}

void LogMessage(const char* /*text*/) {}

void LogMessage(Qv::CQvString text) {
  LogMessage(text.ToCString());
}
