# A host in C++, which bench/python.py measures one in Python against.
if(TARGET selvio_linux_vision)
  add_executable(bench_host host.cpp)
  target_link_libraries(bench_host PRIVATE SelvioFacialCapture SelvioFacialCaptureLinux SelvioFacialCapture::Simulated selvio_options)
  target_compile_definitions(bench_host PRIVATE SELVIO_SAMPLES="${PROJECT_SOURCE_DIR}/samples")
endif()
