# Benchmarks of the vision step.
if(NOT TARGET selvio_linux_vision)
  return()
endif()

add_executable(guidance guidance.cpp)
target_link_libraries(guidance PRIVATE SelvioFacialCapture SelvioFacialCaptureLinux)

add_executable(bench_vision vision_step.cpp TestPictures.cpp)
target_link_libraries(bench_vision PRIVATE SelvioFacialCapture selvio_linux_vision selvio_linux_codec benchmark::benchmark)
target_compile_options(bench_vision PRIVATE -O3)
