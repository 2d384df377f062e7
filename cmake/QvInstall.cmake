# Install rules: both plugins into GStreamer's plugin directory under the install prefix, the
# element library into lib/, the tools into bin/, and the headers of the runtime, the image
# library and the plugin with a pkg-config file "qvvideoproc", so that a host application builds
# against the element library.
include(GNUInstallDirs)

# GStreamer's own plugin directory, taken relative to its prefix, so that
# `cmake --install build --prefix P` puts the plugins where a GStreamer installed in P looks.
pkg_get_variable(QV_GST_PREFIX gstreamer-1.0 prefix)
pkg_get_variable(QV_GST_PLUGINSDIR gstreamer-1.0 pluginsdir)
file(RELATIVE_PATH QV_DEFAULT_PLUGINSDIR "${QV_GST_PREFIX}" "${QV_GST_PLUGINSDIR}")
if(NOT QV_GST_PLUGINSDIR OR QV_DEFAULT_PLUGINSDIR MATCHES "^\\.\\.")
  set(QV_DEFAULT_PLUGINSDIR "${CMAKE_INSTALL_LIBDIR}/gstreamer-1.0")
endif()
set(QV_PLUGINSDIR "${QV_DEFAULT_PLUGINSDIR}" CACHE STRING
  "Where the plugins are installed: relative to the install prefix, or absolute")

# The plugins and the tools find the element library in lib/ wherever the prefix lies, and the
# library finds the plugins from where it lies.
set(QV_MODULES gstqvvideoproc gstqvvideoprochost)
if(IS_ABSOLUTE "${QV_PLUGINSDIR}")
  set(QV_PLUGINS_RPATH "${CMAKE_INSTALL_FULL_LIBDIR}")
  set(QV_LIB_TO_PLUGINS "${QV_PLUGINSDIR}")
  set(QV_PC_PLUGINSDIR "${QV_PLUGINSDIR}")
else()
  file(RELATIVE_PATH QV_PLUGINS_TO_LIB "/p/${QV_PLUGINSDIR}" "/p/${CMAKE_INSTALL_LIBDIR}")
  set(QV_PLUGINS_RPATH "$ORIGIN/${QV_PLUGINS_TO_LIB}")
  file(RELATIVE_PATH QV_LIB_TO_PLUGINS "/p/${CMAKE_INSTALL_LIBDIR}" "/p/${QV_PLUGINSDIR}")
  set(QV_PC_PLUGINSDIR "\${prefix}/${QV_PLUGINSDIR}")
endif()
file(RELATIVE_PATH QV_BIN_TO_LIB "/p/${CMAKE_INSTALL_BINDIR}" "/p/${CMAKE_INSTALL_LIBDIR}")
set_target_properties(${QV_MODULES} PROPERTIES INSTALL_RPATH "${QV_PLUGINS_RPATH}")
set_target_properties(qvproc-launch qvproc-demo PROPERTIES INSTALL_RPATH "$ORIGIN/${QV_BIN_TO_LIB}")
target_compile_definitions(qvvideoproc PRIVATE QV_INSTALLED_PLUGINS_DIR="${QV_LIB_TO_PLUGINS}")

install(TARGETS qvvideoproc LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(TARGETS ${QV_MODULES} LIBRARY DESTINATION "${QV_PLUGINSDIR}")
install(TARGETS qvproc-launch qvproc-demo RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
install(PROGRAMS examples/rig.py DESTINATION "${CMAKE_INSTALL_DATADIR}/qvvideoproc/examples")

file(GLOB QV_PUBLIC_HEADERS
  ${PROJECT_SOURCE_DIR}/src/Qv.Core/*.h
  ${PROJECT_SOURCE_DIR}/src/Qv.Cuda/*.h
  ${PROJECT_SOURCE_DIR}/src/Qv.Cuda.ImageProcessing/QvCudaComp*.h)
list(APPEND QV_PUBLIC_HEADERS ${PROJECT_SOURCE_DIR}/src/Qv.Rig/AutoAdapt.h
  ${PROJECT_SOURCE_DIR}/src/Qv.Rig/QvNvBuffer.h)
install(FILES ${QV_PUBLIC_HEADERS} DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/qvvideoproc")
# Of the plugin, what a host application uses: the element types' getters, the allocators, the
# registration of the elements without a factory, the buffer meta, and what those headers
# include. They keep their folders, since they include each other by them.
set(QV_PLUGIN_PUBLIC_HEADERS
  plugin.h
  gstqvHostElements.h
  common/gstqvMetaInfo.h
  common/gstqvCudaMemory.h
  common/gstqvSysMemAlloc.h
  common/gstqvCudaBaseTransform.h
  common/gstBufferMap.h
  common/gstUtil.h
  transform/gstqvCudaUpload.h
  transform/gstqvCudaDebayer.h
  transform/gstqvCudaScale.h
  transform/gstqvCudaYUV.h
  transform/gstqvCudaNormalize.h
  transform/gstqvCudaDownload.h
  transform/bayer2rgb.h
  transform/rgb2bayer.h
  transform/bayer2lum.h
  mixer/gstqvCudaMix.h
  display/gstqvCudaSink.h
  adapt/gstqvAutoAdapt.h
  jpeg/gstqvCudaJpegSink.h)
foreach(sHeader IN LISTS QV_PLUGIN_PUBLIC_HEADERS)
  get_filename_component(sDir "${sHeader}" DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/src/qvproc_plugin/${sHeader}
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/qvvideoproc/${sDir}")
endforeach()

# Relocatable: the prefix is found from where the file lies.
file(RELATIVE_PATH QV_PC_TO_PREFIX "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
list(JOIN CUDAToolkit_INCLUDE_DIRS " -I" QV_PC_CUDA_CFLAGS)
configure_file(${CMAKE_CURRENT_LIST_DIR}/qvvideoproc.pc.in ${CMAKE_BINARY_DIR}/qvvideoproc.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/qvvideoproc.pc DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
