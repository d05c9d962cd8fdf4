# libyuv and OpenCV as Debian ships them: libyuv has no pkg-config or CMake
# files, and the -dev packages of single OpenCV modules ship no OpenCVConfig.
# Only the internal adapter and the benchmarks/tool include their headers.
find_path(LIBYUV_INCLUDE_DIR libyuv.h REQUIRED)
find_library(LIBYUV_LIBRARY NAMES yuv REQUIRED)
add_library(kv_thirdparty::libyuv UNKNOWN IMPORTED)
set_target_properties(kv_thirdparty::libyuv PROPERTIES
  IMPORTED_LOCATION ${LIBYUV_LIBRARY}
  INTERFACE_INCLUDE_DIRECTORIES ${LIBYUV_INCLUDE_DIR})

find_path(OPENCV_INCLUDE_DIR opencv2/core.hpp PATH_SUFFIXES opencv4 REQUIRED)
add_library(kv_thirdparty::opencv INTERFACE IMPORTED)
set_target_properties(kv_thirdparty::opencv PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${OPENCV_INCLUDE_DIR})
foreach(module core imgproc)
  find_library(OPENCV_${module}_LIBRARY NAMES opencv_${module} REQUIRED)
  target_link_libraries(kv_thirdparty::opencv INTERFACE ${OPENCV_${module}_LIBRARY})
endforeach()
# imgcodecs is optional for the library itself; the tool reads and writes image files with it.
find_library(OPENCV_imgcodecs_LIBRARY NAMES opencv_imgcodecs)
if(OPENCV_imgcodecs_LIBRARY)
  add_library(kv_thirdparty::opencv_imgcodecs INTERFACE IMPORTED)
  target_link_libraries(kv_thirdparty::opencv_imgcodecs INTERFACE kv_thirdparty::opencv ${OPENCV_imgcodecs_LIBRARY})
endif()
# objdetect is optional too; only the benchmarks compare against its groupRectangles.
find_library(OPENCV_objdetect_LIBRARY NAMES opencv_objdetect)
find_path(OPENCV_objdetect_INCLUDE_DIR opencv2/objdetect.hpp PATH_SUFFIXES opencv4)
if(OPENCV_objdetect_LIBRARY AND OPENCV_objdetect_INCLUDE_DIR)
  add_library(kv_thirdparty::opencv_objdetect INTERFACE IMPORTED)
  target_link_libraries(kv_thirdparty::opencv_objdetect INTERFACE kv_thirdparty::opencv ${OPENCV_objdetect_LIBRARY})
endif()
