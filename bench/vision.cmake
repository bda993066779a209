# Benchmarks of the vision step; the test pictures are their frames.
if(NOT TARGET selvio_linux_vision)
  return()
endif()

add_executable(guidance guidance.cpp)
target_link_libraries(guidance PRIVATE SelvioFacialCapture SelvioFacialCaptureLinux selvio_options)

if(NOT TARGET selvio_test_pictures)
  return()
endif()
find_package(dlib REQUIRED)

add_executable(bench_vision vision_step.cpp)
target_link_libraries(bench_vision PRIVATE SelvioFacialCaptureLinux selvio_test_pictures dlib::dlib benchmark::benchmark selvio_options)
target_include_directories(bench_vision PRIVATE ${PROJECT_SOURCE_DIR})
# What it is compared with deserves the optimiser in every build.
target_compile_options(bench_vision PRIVATE -O3 -DNDEBUG)

# The cascade comparison is optional: Debian's libopencv-objdetect-dev and opencv-data.
find_path(SELVIO_OPENCV_INCLUDE opencv2/objdetect.hpp PATH_SUFFIXES opencv4)
find_library(SELVIO_OPENCV_OBJDETECT opencv_objdetect)
find_library(SELVIO_OPENCV_CORE opencv_core)
find_file(SELVIO_HAAR_CASCADE haarcascade_frontalface_default.xml PATHS /usr/share/opencv4/haarcascades NO_DEFAULT_PATH)
if(SELVIO_OPENCV_INCLUDE AND SELVIO_OPENCV_OBJDETECT AND SELVIO_OPENCV_CORE AND SELVIO_HAAR_CASCADE)
  target_include_directories(bench_vision SYSTEM PRIVATE ${SELVIO_OPENCV_INCLUDE})
  target_link_libraries(bench_vision PRIVATE ${SELVIO_OPENCV_OBJDETECT} ${SELVIO_OPENCV_CORE})
  target_compile_definitions(bench_vision PRIVATE SELVIO_HAAR_CASCADE="${SELVIO_HAAR_CASCADE}")
endif()
