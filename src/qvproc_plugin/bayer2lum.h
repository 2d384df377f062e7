#pragma once
#include <gst/base/gstbasetransform.h>
#include <gst/gst.h>

G_BEGIN_DECLS

#define GST_TYPE_BAYER2LUM (gst_bayer2lum_get_type())
#define GST_BAYER2LUM(obj) (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_BAYER2LUM, GstBayer2LUM))

typedef struct _GstBayer2LUM {
  GstBaseTransform parent;
} GstBayer2LUM;

typedef struct _GstBayer2LUMClass {
  GstBaseTransformClass parent_class;
} GstBayer2LUMClass;

GType gst_bayer2lum_get_type(void);

G_END_DECLS
