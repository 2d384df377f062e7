#pragma once
#include <gst/base/gstbasetransform.h>
#include <gst/gst.h>

G_BEGIN_DECLS

#define GST_TYPE_RGB2BAYER (gst_rgb2bayer_get_type())
#define GST_RGB2BAYER(obj) (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_RGB2BAYER, GstQvRgb2Bayer))

typedef struct _GstQvRgb2Bayer {
  GstBaseTransform parent;
} GstQvRgb2Bayer;

typedef struct _GstQvRgb2BayerClass {
  GstBaseTransformClass parent_class;
} GstQvRgb2BayerClass;

GType gst_rgb2bayer_get_type(void);

G_END_DECLS
