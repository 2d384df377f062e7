#pragma once
// The element types without a factory in the plugin are registered by the host application;
// this registers all of them at once under their element names, for qvproc-launch and tests.
#include <gst/gst.h>

G_BEGIN_DECLS

// Registers "qvcudanormalize", "qvcudayuv", "qvcudadownload", "qvbayer2rgb", "qvrgb2bayer",
// "qvbayer2lum" and "qvcudajpegsink" without a plugin, rank none. Every registration is tried;
// the result is true when all succeeded. Calling it again changes nothing. "qvbayer2rgb" is left
// out where GStreamer's own bayer plugin already took the type name GstBayer2RGB in this process.
gboolean qv_register_host_elements(void);

G_END_DECLS
