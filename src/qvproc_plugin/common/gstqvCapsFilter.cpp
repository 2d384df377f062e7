#include "common/gstqvCapsFilter.h"

#include "common/gstqvSysMemAlloc.h"

GstCaps* QvRelabelCaps(GstBaseTransform* trans, GstCaps* caps, GstCaps* filter, gboolean bToBayer,
                       QvHeightRule fnRule) {
  GST_DEBUG_OBJECT(trans, "transforming caps from %" GST_PTR_FORMAT, caps);
  GstCaps* pxNew = bToBayer ? gst_caps_from_string(QV_CAPS_BAYER_FORMATS)
                            : gst_caps_new_empty_simple("video/x-raw");
  // Empty and ANY caps have no structure to take sizes from.
  if (caps && gst_caps_get_size(caps) > 0 && !gst_caps_is_any(caps)) {
    const GstStructure* pxIn = gst_caps_get_structure(caps, 0);
    GstStructure* pxOut = gst_caps_get_structure(pxNew, 0);
    const GValue* pxWidth = gst_structure_get_value(pxIn, "width");
    if (pxWidth) gst_structure_set_value(pxOut, "width", pxWidth);
    const GValue* pxHeight = gst_structure_get_value(pxIn, "height");
    if (pxHeight && G_VALUE_HOLDS_INT(pxHeight)) {
      const gint iHeight = fnRule(g_value_get_int(pxHeight));
      gst_structure_set(pxOut, "height", G_TYPE_INT, iHeight, NULL);
      if (gst_caps_is_writable(caps))
        gst_structure_set(gst_caps_get_structure(caps, 0), "height", G_TYPE_INT, iHeight, NULL);
    } else if (pxHeight) {
      gst_structure_set_value(pxOut, "height", pxHeight);
    }
    const GValue* pxRate = gst_structure_get_value(pxIn, "framerate");
    if (pxRate) gst_structure_set_value(pxOut, "framerate", pxRate);
  }
  if (!filter) return pxNew;
  GST_DEBUG_OBJECT(trans, "filter %" GST_PTR_FORMAT, filter);
  GstCaps* pxResult = gst_caps_intersect_full(filter, pxNew, GST_CAPS_INTERSECT_FIRST);
  gst_caps_unref(pxNew);
  GST_DEBUG_OBJECT(trans, "result %" GST_PTR_FORMAT, pxResult);
  return pxResult;
}

GstFlowReturn QvCapsFilterPrepareOutputBuffer(GstBaseTransform* /*trans*/, GstBuffer* inbuf,
                                              GstBuffer** outbuf) {
  *outbuf = inbuf;
  return GST_FLOW_OK;
}

GstFlowReturn QvCapsFilterTransformIp(GstBaseTransform* /*trans*/, GstBuffer* /*buf*/) {
  return GST_FLOW_OK;
}

void QvCapsFilterInit(GstBaseTransform* trans) {
  gst_base_transform_set_in_place(trans, TRUE);
  GST_PAD_SET_ACCEPT_TEMPLATE(GST_BASE_TRANSFORM_SINK_PAD(trans));
  GST_PAD_SET_ACCEPT_TEMPLATE(GST_BASE_TRANSFORM_SRC_PAD(trans));
}

gboolean QvCapsFilterQuery(GstBaseTransform* trans, GstPadDirection direction, GstQuery* query) {
  if (GST_QUERY_TYPE(query) != GST_QUERY_CAPS)
    return GST_BASE_TRANSFORM_CLASS(g_type_class_peek(GST_TYPE_BASE_TRANSFORM))
        ->query(trans, direction, query);
  GstPad* pxPad = direction == GST_PAD_SINK ? GST_BASE_TRANSFORM_SINK_PAD(trans)
                                            : GST_BASE_TRANSFORM_SRC_PAD(trans);
  GstCaps* pxFilter = NULL;
  gst_query_parse_caps(query, &pxFilter);
  GstCaps* pxTemplate = gst_pad_get_pad_template_caps(pxPad);
  GstCaps* pxResult = pxTemplate;
  if (pxFilter) {
    pxResult = gst_caps_intersect_full(pxFilter, pxTemplate, GST_CAPS_INTERSECT_FIRST);
    gst_caps_unref(pxTemplate);
  }
  gst_query_set_caps_result(query, pxResult);
  gst_caps_unref(pxResult);
  return TRUE;
}

void QvCapsFilterClassInit(GstBaseTransformClass* pxClass, const char* szLongName,
                           const char* szDescription, const char* szSrcCaps, const char* szSinkCaps,
                           GstCaps* (*fnTransformCaps)(GstBaseTransform*, GstPadDirection, GstCaps*,
                                                       GstCaps*)) {
  GstElementClass* pxElementClass = GST_ELEMENT_CLASS(pxClass);
  gst_element_class_set_static_metadata(pxElementClass, szLongName, "Filter/Converter/Video",
                                        szDescription, "qvvideoproc developers");
  GstCaps* pxSrcCaps = gst_caps_from_string(szSrcCaps);
  GstCaps* pxSinkCaps = gst_caps_from_string(szSinkCaps);
  gst_element_class_add_pad_template(
      pxElementClass, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, pxSrcCaps));
  gst_element_class_add_pad_template(
      pxElementClass, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, pxSinkCaps));
  gst_caps_unref(pxSrcCaps);
  gst_caps_unref(pxSinkCaps);

  pxClass->transform_caps = fnTransformCaps;
  pxClass->transform_ip = GST_DEBUG_FUNCPTR(QvCapsFilterTransformIp);
  pxClass->propose_allocation = GST_DEBUG_FUNCPTR(ProposeAllocation);
  pxClass->prepare_output_buffer = GST_DEBUG_FUNCPTR(QvCapsFilterPrepareOutputBuffer);
  pxClass->query = GST_DEBUG_FUNCPTR(QvCapsFilterQuery);
}
