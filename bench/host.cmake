# A host in C++, which bench/python.py measures one in Python against.
if(TARGET selvio_linux_vision)
  add_executable(bench_host host.cpp)
  target_link_libraries(bench_host PRIVATE SelvioFacialCapture SelvioFacialCaptureLinux SelvioFacialCapture::Simulated)
endif()
