// The buffer meta that carries camera settings along with a frame.
#include "common/gstqvMetaInfo.h"

static gboolean my_meta_init(GstMeta* /*meta*/, gpointer /*params*/, GstBuffer* /*buffer*/) {
  return TRUE;
}

GType my_meta_info_api_get_type(void) {
  static gsize uType = 0;
  static const gchar* apszTags[] = {"buffer", "meta", NULL};
  if (g_once_init_enter(&uType)) {
    GType xType = gst_meta_api_type_register("MyMetaInfoAPI", apszTags);
    g_once_init_leave(&uType, xType);
  }
  return static_cast<GType>(uType);
}

const GstMetaInfo* my_meta_get_info(void) {
  static const GstMetaInfo* pxInfo = NULL;
  if (g_once_init_enter(&pxInfo)) {
    const GstMetaInfo* pxNew =
        gst_meta_register(MY_META_INFO_API_TYPE, "MyMetaInfo", sizeof(MyMetaInfo), my_meta_init,
                          (GstMetaFreeFunction)NULL, (GstMetaTransformFunction)NULL);
    g_once_init_leave(&pxInfo, pxNew);
  }
  return pxInfo;
}
