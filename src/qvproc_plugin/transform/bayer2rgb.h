#pragma once
#include <gst/base/gstbasetransform.h>
#include <gst/gst.h>

G_BEGIN_DECLS

#define GST_TYPE_BAYER2RGB (gst_bayer2rgb_get_type())
#define GST_BAYER2RGB(obj) (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_BAYER2RGB, GstQvBayer2RGB))

typedef struct _GstQvBayer2RGB {
  GstBaseTransform parent;
} GstQvBayer2RGB;

typedef struct _GstQvBayer2RGBClass {
  GstBaseTransformClass parent_class;
} GstQvBayer2RGBClass;

GType gst_bayer2rgb_get_type(void);

G_END_DECLS
