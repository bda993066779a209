# Benchmarks of the vision step.
if(NOT TARGET selvio_linux_vision)
  return()
endif()

add_executable(guidance guidance.cpp)
target_link_libraries(guidance PRIVATE SelvioFacialCapture SelvioFacialCaptureLinux selvio_options)

add_executable(bench_vision vision_step.cpp TestPictures.cpp)
target_link_libraries(bench_vision PRIVATE SelvioFacialCapture selvio_linux_vision selvio_linux_codec benchmark::benchmark selvio_options)
target_include_directories(bench_vision PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/tests)
target_compile_definitions(bench_vision PRIVATE SELVIO_TEST_PORTRAIT="${PROJECT_SOURCE_DIR}/samples/astronaut.jpg")
target_compile_options(bench_vision PRIVATE -O3)
