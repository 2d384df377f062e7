#pragma once
// What the transform elements share: negotiation, output buffers, the hand-over of camera
// settings, and the one failure report.
#include <gst/base/gstbasetransform.h>
#include <gst/gst.h>

#include "QvException.h"
#include "QvString.h"

GstCaps* defaultNegotiation(const gchar* sinkCapsText, const gchar* srcCapsText,
                            GstPadDirection direction, GstCaps* caps, GstCaps* filter);
GstFlowReturn PrepareOutputBufferCuda(GstBaseTransform* trans, GstBuffer* inbuf,
                                      GstBuffer** outbuf);
void CopyMetData(GstBuffer* outbuf, GstBuffer* inbuf);
void HandleException(const Qv::IException& exception);
void LogMessage(const char* text);
void LogMessage(Qv::CQvString text);
