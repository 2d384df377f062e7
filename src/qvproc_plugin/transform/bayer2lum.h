#pragma once
#include <gst/base/gstbasetransform.h>
#include <gst/gst.h>

G_BEGIN_DECLS

#define GST_TYPE_BAYER2LUM (gst_bayer2lum_get_type())
#define GST_BAYER2LUM(obj) (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_BAYER2LUM, GstQvBayer2LUM))

typedef struct _GstQvBayer2LUM {
  GstBaseTransform parent;
} GstQvBayer2LUM;

typedef struct _GstQvBayer2LUMClass {
  GstBaseTransformClass parent_class;
} GstQvBayer2LUMClass;

GType gst_bayer2lum_get_type(void);

G_END_DECLS
