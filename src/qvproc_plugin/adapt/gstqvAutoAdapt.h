#pragma once
#include <gst/base/gstbasetransform.h>
#include <gst/gst.h>

#include "AutoAdapt.h"

class CH5Camera;

G_BEGIN_DECLS

#define GST_TYPE_AUTO_ADAPT (gst_auto_adapt_get_type())
#define GST_AUTO_ADAPT(obj) (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_AUTO_ADAPT, GstQvAutoAdapt))

typedef struct _GstQvAutoAdapt {
  GstBaseTransform parent;
  // Frame size from the input caps.
  gint iWidth;
  gint iHeight;
  // The property values; copied under the object lock at each frame.
  SAutoAdaptSettings xSettingsElement;
  gchar* sDevice;
  // Made at the first frame, pointed at each new "device" at the next frame, closed at finalize.
  CH5Camera* pxCamera;
  gint uFrameCount;
} GstQvAutoAdapt;

typedef struct _GstQvAutoAdaptClass {
  GstBaseTransformClass parent_class;
} GstQvAutoAdaptClass;

GType gst_auto_adapt_get_type(void);

G_END_DECLS

// The rig's private report queue. At most this many reports wait for the controller; the
// oldest go first when a rig has no controller.
#define QV_AUTO_ADAPT_MAX_REPORTS 64
// Takes the oldest report waiting for the controller, for observers of a rig without one;
// false when none waits.
bool QvAutoAdaptPopReport(SAutoAdaptStatus& status);
