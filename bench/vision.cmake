# Benchmarks of the vision step; the test pictures are their frames.
if(NOT TARGET selvio_linux_vision)
  return()
endif()

add_executable(guidance guidance.cpp)
target_link_libraries(guidance PRIVATE SelvioFacialCapture SelvioFacialCaptureLinux selvio_options)

if(NOT TARGET selvio_test_pictures)
  return()
endif()

add_executable(bench_vision vision_step.cpp)
target_link_libraries(bench_vision PRIVATE selvio_linux_vision selvio_test_pictures benchmark::benchmark selvio_options)
target_include_directories(bench_vision PRIVATE ${PROJECT_SOURCE_DIR})
target_compile_options(bench_vision PRIVATE -O3)
