#pragma once
#include <gst/base/gstbasetransform.h>
#include <gst/gst.h>

G_BEGIN_DECLS

#define GST_TYPE_BAYER2RGB (gst_bayer2rgb_get_type())
#define GST_BAYER2RGB(obj) (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_BAYER2RGB, GstBayer2RGB))

typedef struct _GstBayer2RGB {
  GstBaseTransform parent;
} GstBayer2RGB;

typedef struct _GstBayer2RGBClass {
  GstBaseTransformClass parent_class;
} GstBayer2RGBClass;

GType gst_bayer2rgb_get_type(void);

G_END_DECLS
