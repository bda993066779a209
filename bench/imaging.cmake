add_executable(bench_imaging imaging.cpp)
target_link_libraries(bench_imaging PRIVATE SelvioFacialCapture benchmark::benchmark)

if(TARGET SelvioFacialCaptureLinux)
  find_package(JPEG REQUIRED)
  add_executable(bench_imaging_codec imagingCodec.cpp)
  target_link_libraries(bench_imaging_codec PRIVATE SelvioFacialCaptureLinux JPEG::JPEG benchmark::benchmark)
endif()
