#include "gstqvHostElements.h"

#include <dlfcn.h>

#include "adapt/gstqvAutoAdapt.h"
#include "jpeg/gstqvCudaJpegSink.h"
#include "transform/bayer2lum.h"
#include "transform/bayer2rgb.h"
#include "transform/gstqvCudaDownload.h"
#include "transform/gstqvCudaNormalize.h"
#include "transform/gstqvCudaYUV.h"
#include "transform/rgb2bayer.h"

// A factory is made once per process for each type: a second one would replace the first
// under the element class, which keeps pointing at the factory it was first registered with.
// So whichever comes first, the application or the companion plugin, keeps the factory.
static gboolean RegisterOnce(GstPlugin* pxPlugin, const char* szName, GType xType) {
  GstPluginFeature* pxExisting = gst_registry_lookup_feature(gst_registry_get(), szName);
  if (pxExisting) {
    // A factory read from the registry cache and not loaded yet has no type.
    const gboolean bDone =
        GST_IS_ELEMENT_FACTORY(pxExisting) &&
        gst_element_factory_get_element_type(GST_ELEMENT_FACTORY(pxExisting)) == xType;
    gst_object_unref(pxExisting);
    if (bDone) return TRUE;
  }
  return gst_element_register(pxPlugin, szName, GST_RANK_NONE, xType);
}

gboolean qv_register_host_elements_into(GstPlugin* plugin) {
  // One row per element type that the plugin's own plugin_init does not register.
  static const struct {
    const char* szName;
    GType (*fnType)(void);
  } axElements[] = {
      // clang-format off
      {"qvcudanormalize", gst_cuda_normalize_get_type},
      {"qvcudayuv", gst_cuda_yuv_get_type},
      {"qvcudadownload", gst_cuda_download_get_type},
      {"qvbayer2rgb", gst_bayer2rgb_get_type},
      {"qvrgb2bayer", gst_rgb2bayer_get_type},
      {"qvbayer2lum", gst_bayer2lum_get_type},
      {"qvautoadapt", gst_auto_adapt_get_type},
      {"qvcudajpegsink", gst_cuda_jpeg_sink_get_type},
      // clang-format on
  };
  gboolean bOk = TRUE;
  for (const auto& x : axElements) bOk &= RegisterOnce(plugin, x.szName, x.fnType());
  return bOk;
}

gboolean qv_register_host_elements(void) {
  return qv_register_host_elements_into(NULL);
}

gboolean qv_scan_plugin_dir(void) {
  Dl_info xInfo;
  if (!dladdr(reinterpret_cast<void*>(&qv_scan_plugin_dir), &xInfo) || !xInfo.dli_fname)
    return FALSE;
  // The plugins lie where an install puts them beside this library, or in the build tree's
  // plugin folder; the first of the two that holds the main plugin is scanned.
  gchar* szLibDir = g_path_get_dirname(xInfo.dli_fname);
  gboolean bChanged = FALSE;
  for (const char* szPlugins : {QV_INSTALLED_PLUGINS_DIR, QV_BUILT_PLUGINS_DIR}) {
    gchar* szDir = g_path_is_absolute(szPlugins) ? g_strdup(szPlugins)
                                                 : g_build_filename(szLibDir, szPlugins, NULL);
    gchar* szMain = g_build_filename(szDir, "libgstqvvideoproc.so", NULL);
    const gboolean bFound = g_file_test(szMain, G_FILE_TEST_EXISTS);
    if (bFound) bChanged = gst_registry_scan_path(gst_registry_get(), szDir);
    g_free(szMain);
    g_free(szDir);
    if (bFound) break;
  }
  g_free(szLibDir);
  return bChanged;
}
