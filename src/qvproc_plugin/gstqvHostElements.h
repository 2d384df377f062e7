#pragma once
// The element types without a factory in the plugin are registered by the host application or
// by the companion plugin "qvvideoprochost"; this registers all of them at once under their
// element names.
#include <gst/gst.h>

G_BEGIN_DECLS

// Registers "qvcudanormalize", "qvcudayuv", "qvcudadownload", "qvbayer2rgb", "qvrgb2bayer",
// "qvbayer2lum", "qvautoadapt" and "qvcudajpegsink" without a plugin, rank none. Every
// registration is tried; the result is true when all succeeded. Calling it again changes nothing.
// The type names carry our prefix (GstQvBayer2RGB, ...), so that GStreamer's own plugins, loaded
// into the same process, keep theirs.
gboolean qv_register_host_elements(void);

// The same registrations as factories of plugin: the companion plugin "qvvideoprochost" calls
// it from its plugin_init, so that the registry knows which plugin to load for each element.
// An element already registered in this process, by either way, keeps its factory.
gboolean qv_register_host_elements_into(GstPlugin* plugin);

// Adds the plugins' folder beside this library (installed or in the build tree) to the registry,
// so that a host application finds the very plugins it runs with, also where GST_PLUGIN_PATH
// does not name them (and never a second copy of the plugins from elsewhere).
gboolean qv_scan_plugin_dir(void);

G_END_DECLS
