#pragma once
// What the three relabelling filters (qvbayer2rgb, qvrgb2bayer, qvbayer2lum) share: their caps
// texts, the negotiation steps around their height rule, and the hand-over of a buffer as it is.
#include <gst/base/gstbasetransform.h>
#include <gst/gst.h>

#define QV_CAPS_BAYER                                                                     \
  "video/x-bayer,format=(string){bggr,grbg,gbrg,rggb},width=(int)[1,MAX],height=(int)[1," \
  "MAX],framerate=(fraction)[0/1,MAX]"
#define QV_CAPS_BAYER_FORMATS "video/x-bayer,format=(string){bggr,grbg,gbrg,rggb}"
#define QV_CAPS_RGB                                                                            \
  "video/x-raw, format = (string) { RGB }, width = (int) [ 1, max ], height = (int) [ 1, max " \
  "], framerate = (fraction) [ 0, max ]"
#define QV_CAPS_GRAY8                                                                        \
  "video/x-raw, format = (string) { GRAY8 }, width = (int) [ 1, max ], height = (int) [ 1, " \
  "max ], framerate = (fraction) [ 0, max ]"

// Maps a plain integer height; the rule keeps its own state.
typedef gint (*QvHeightRule)(gint iHeight);

// Caps of the other side: bayer caps (bToBayer) or bare "video/x-raw", with width and
// framerate of structure 0 of caps, and its height through fnRule. A height that is no plain
// integer (a range, a list) passes unchanged. Writable caps get the new height too, so that
// asking again with the same caps gives the same answer.
GstCaps* QvRelabelCaps(GstBaseTransform* trans, GstCaps* caps, GstCaps* filter, gboolean bToBayer,
                       QvHeightRule fnRule);

// Class set-up shared by the filters: the element's long name and description, pad templates
// from the two caps texts, and the slots around the element's own transform_caps.
void QvCapsFilterClassInit(GstBaseTransformClass* pxClass, const char* szLongName,
                           const char* szDescription, const char* szSrcCaps, const char* szSinkCaps,
                           GstCaps* (*fnTransformCaps)(GstBaseTransform*, GstPadDirection, GstCaps*,
                                                       GstCaps*));

// Instance set-up shared by the filters: in place, and pads that accept what their template
// allows.
void QvCapsFilterInit(GstBaseTransform* trans);

// A caps query is answered from the pad's own template. The height rule cannot map the other
// side's fixed caps back (an RGB height is not multiplied back into a bayer height), so a
// query through the filter would come back empty and nothing could link; the caps event then
// goes through transform_caps alone.
gboolean QvCapsFilterQuery(GstBaseTransform* trans, GstPadDirection direction, GstQuery* query);

// The filters change no byte: the input buffer itself goes on, metas and memories included,
// even when it is not writable.
GstFlowReturn QvCapsFilterPrepareOutputBuffer(GstBaseTransform* trans, GstBuffer* inbuf,
                                              GstBuffer** outbuf);
GstFlowReturn QvCapsFilterTransformIp(GstBaseTransform* trans, GstBuffer* buf);
