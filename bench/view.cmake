if(TARGET SelvioFacialCaptureGtk AND TARGET SelvioFacialCaptureLinux)
  add_executable(bench_view view.cpp)
  target_link_libraries(bench_view PRIVATE SelvioFacialCaptureGtk SelvioFacialCaptureLinux SelvioFacialCaptureSimulated PkgConfig::GTK4)
endif()
