# The Debian packages that scripts/packages.sh makes: a component of the installation each. Comes after everything that is installed.
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGE_NAME selvio-facial-capture)
set(CPACK_PACKAGE_VENDOR SelvioFacialCapture)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "SelvioFacialCapture developers <developers@selvio.invalid>")
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE https://selvio.invalid/facial-capture)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_STRIP_FILES ON)

set(changelog ${PROJECT_BINARY_DIR}/packages/changelog)
file(WRITE ${changelog} "selvio-facial-capture (${PROJECT_VERSION}) stable; urgency=medium\n\n  * See CHANGELOG.md.\n\n"
     " -- SelvioFacialCapture developers <developers@selvio.invalid>  Sat, 21 Nov 2026 00:00:00 +0000\n")
execute_process(COMMAND gzip -9nkf ${changelog} COMMAND_ERROR_IS_FATAL ANY)
set(copyright ${PROJECT_BINARY_DIR}/packages/copyright)
file(WRITE ${copyright} "Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/\n\nFiles: *\nCopyright: 2026 the SelvioFacialCapture developers\n"
     "License: Apache-2.0\n On Debian systems the licence's text is in /usr/share/common-licenses/Apache-2.0.\n")

set(triggers ${PROJECT_BINARY_DIR}/packages/triggers)
file(WRITE ${triggers} "activate-noawait ldconfig\n")

# selvio_package(COMPONENT NAME SUMMARY DESCRIPTION [DEPENDS component ...] [NEEDS package, ...] [SECTION section])
function(selvio_package component name summary description)
  cmake_parse_arguments(ARG "" "NEEDS;SECTION" "DEPENDS" ${ARGN})
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name} PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}\n${description}" PARENT_SCOPE)
  set(CPACK_COMPONENT_${upper}_DEPENDS ${ARG_DEPENDS} PARENT_SCOPE)
  if(ARG_NEEDS)
    set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${ARG_NEEDS}" PARENT_SCOPE)
  endif()
  if(component MATCHES "^(core|linux|gtk)$")
    set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA ${triggers} PARENT_SCOPE)
  endif()
  if(ARG_SECTION)
    set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${ARG_SECTION} PARENT_SCOPE)
  endif()
  set(CPACK_COMPONENTS_ALL ${CPACK_COMPONENTS_ALL} ${component} PARENT_SCOPE)
  install(FILES ${copyright} ${changelog}.gz DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
endfunction()

set(CPACK_COMPONENTS_ALL)
selvio_package(core libselvio-facial-capture${PROJECT_VERSION_MAJOR} "the component itself, and a simulated camera" "Watches camera frames, guides the person and picks the photograph by itself.")
set(libraries core)
if(TARGET SelvioFacialCaptureLinux)
  selvio_package(
    linux libselvio-facial-capture-linux${PROJECT_VERSION_MAJOR} "adapters for Linux" "Cameras, recording, pictures and face landmarks."
    DEPENDS core
    NEEDS "gstreamer1.0-plugins-base, gstreamer1.0-plugins-good, gstreamer1.0-plugins-bad, gstreamer1.0-plugins-ugly, gstreamer1.0-libav")
  list(APPEND libraries linux)
endif()
if(TARGET SelvioFacialCaptureGtk)
  selvio_package(gtk libselvio-facial-capture-gtk${PROJECT_VERSION_MAJOR} "view for GTK 4" "The live picture with guidance, as a widget." DEPENDS core)
  list(APPEND libraries gtk)
endif()
selvio_package(
  dev libselvio-facial-capture-dev "files for development" "Headers, package files for CMake and pkg-config, documentation."
  DEPENDS ${libraries} NEEDS nlohmann-json3-dev SECTION libdevel)
if(TARGET SelvioFacialCaptureC)
  install(DIRECTORY python/selvio_facial_capture DESTINATION lib/python3/dist-packages COMPONENT python EXCLUDE_FROM_ALL PATTERN __pycache__ EXCLUDE)
  selvio_package(python python3-selvio-facial-capture "hosts in Python" "Captures, judges pictures and reads records." DEPENDS core linux
                 NEEDS python3 SECTION python)
endif()
if(TARGET selvio-capture)
  selvio_package(program selvio-capture "takes guided selfies with a camera" "The host program of the selfie capture component." DEPENDS ${libraries}
                 SECTION graphics)
endif()
include(CPack)
