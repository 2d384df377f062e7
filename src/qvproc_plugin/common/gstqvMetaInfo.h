#pragma once
#include <gst/gst.h>

G_BEGIN_DECLS

// Camera settings a frame was taken with; written by the auto adapt element and handed on by
// every transform.
typedef struct _MyMetaInfo {
  GstMeta meta;
  gfloat exposure;
  gfloat gain;
} MyMetaInfo;

GType my_meta_info_api_get_type(void);
const GstMetaInfo* my_meta_get_info(void);

#define MY_META_INFO_API_TYPE (my_meta_info_api_get_type())
#define MY_META_INFO_INFO (my_meta_get_info())

G_END_DECLS
