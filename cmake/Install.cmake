# What `cmake --install` puts in place: the libraries, their headers, the package files for CMake and pkg-config, the program and the samples.
include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/SelvioFacialCapture)

# The gate of calls is what only our own libraries share.
install(DIRECTORY include/SelvioFacialCapture DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING
        PATTERN CallGate.h EXCLUDE PATTERN "*.h")
install(DIRECTORY samples/ DESTINATION ${CMAKE_INSTALL_DATADIR}/SelvioFacialCapture/samples COMPONENT core OPTIONAL)
install(FILES LICENSE README.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DOCDIR})

# find_package(SelvioFacialCapture)
configure_package_config_file(
  cmake/SelvioFacialCaptureConfig.cmake.in ${PROJECT_BINARY_DIR}/cmake/SelvioFacialCaptureConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/cmake/SelvioFacialCaptureConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/cmake/SelvioFacialCaptureConfig.cmake ${PROJECT_BINARY_DIR}/cmake/SelvioFacialCaptureConfigVersion.cmake
        DESTINATION ${package_dir})
install(EXPORT SelvioFacialCaptureTargets NAMESPACE SelvioFacialCapture:: DESTINATION ${package_dir})

# pkg-config: a file a library, which finds its prefix from where it lies, so that the tree may be moved.
file(RELATIVE_PATH pc_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
function(selvio_pkg_config target requires description)
  if(TARGET ${target})
    set(pc_name ${target})
    set(pc_requires ${requires})
    set(pc_description ${description})
    configure_file(cmake/SelvioFacialCapture.pc.in ${PROJECT_BINARY_DIR}/cmake/${target}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/cmake/${target}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  endif()
endfunction()
selvio_pkg_config(SelvioFacialCapture "nlohmann_json >= 3.9" "Selfie capture component (its headers need C++20)")
selvio_pkg_config(SelvioFacialCaptureLinux "SelvioFacialCapture = ${PROJECT_VERSION}" "Selfie capture component: adapters for Linux (its headers need C++20)")
selvio_pkg_config(SelvioFacialCaptureGtk "SelvioFacialCapture = ${PROJECT_VERSION}" "Selfie capture component: view for GTK 4 (its headers need C++20)")
selvio_pkg_config(SelvioFacialCaptureSimulated "SelvioFacialCapture = ${PROJECT_VERSION}" "Selfie capture component: simulated camera (its headers need C++20)")
selvio_pkg_config(SelvioFacialCaptureC "" "Selfie capture component: interface for C")
