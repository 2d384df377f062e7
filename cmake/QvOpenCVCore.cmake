# OpenCV core, for the one matrix type the frame copy exchanges (cv::cuda::GpuMat over device
# memory). Debian's libopencv-core-dev ships neither a CMake package nor a pkg-config file, so
# the header and library are looked up directly. Imported, so its headers count as system
# headers and their warnings are not ours.
if(NOT TARGET qv_opencv_core)
  find_path(QV_OPENCV_INCLUDE_DIR opencv2/core/cuda.hpp PATH_SUFFIXES opencv4 REQUIRED)
  find_library(QV_OPENCV_CORE_LIBRARY opencv_core REQUIRED)
  add_library(qv_opencv_core UNKNOWN IMPORTED GLOBAL)
  set_target_properties(qv_opencv_core PROPERTIES
    IMPORTED_LOCATION ${QV_OPENCV_CORE_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${QV_OPENCV_INCLUDE_DIR})
endif()
