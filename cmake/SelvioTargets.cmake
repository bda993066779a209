# Flags for our own code; never passed on to those who link us.
add_library(selvio_options INTERFACE)
# GCC 12 reports an impossible overlap inside std::string's operator+ (GCC bug 105651), hence -Wno-restrict.
target_compile_options(selvio_options INTERFACE -Wall -Wextra -Wpedantic -Wconversion $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict> $<$<BOOL:${SELVIO_WARNINGS_AS_ERRORS}>:-Werror>)

if(SELVIO_HARDENING)
  include(CheckPIESupported)
  check_pie_supported(LANGUAGES CXX)
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -fstack-protector-strong -fstack-clash-protection)
  if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
    add_compile_options(-fcf-protection=full)
  endif()
  add_link_options(LINKER:-z,relro,-z,now,-z,noexecstack)
endif()

# selvio_folder(NAME SOURCES a.cpp ... LINKS target ...): one folder, one target. The objects go into the library that exports the component.
function(selvio_folder name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
  add_library(${name} OBJECT ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/include PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_LINKS} PRIVATE $<BUILD_INTERFACE:selvio_options>)
endfunction()

# selvio_shared(NAME EXPORT_NAME FOLDERS folder ... [LINKS ...]): a versioned shared library made of folders, which hosts link as
# SelvioFacialCapture::EXPORT_NAME. A test of what it hides links the folder in question besides.
function(selvio_shared name export_name)
  cmake_parse_arguments(ARG "" "" "FOLDERS;LINKS" ${ARGN})
  add_library(${name} SHARED)
  add_library(SelvioFacialCapture::${export_name} ALIAS ${name})
  target_include_directories(
    ${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_compile_features(${name} PUBLIC cxx_std_20)
  foreach(folder IN LISTS ARG_FOLDERS)
    target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:${folder}>)
  endforeach()
  target_link_libraries(${name} PUBLIC ${ARG_LINKS})
  set(exports ${PROJECT_SOURCE_DIR}/cmake/exports.map)
  target_link_options(${name} PRIVATE LINKER:--version-script=${exports})
  set_target_properties(
    ${name} PROPERTIES OUTPUT_NAME ${name} EXPORT_NAME ${export_name} VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
                       INSTALL_RPATH $ORIGIN LINK_DEPENDS ${exports} LINKER_LANGUAGE CXX)
  set(component core)
  if(export_name MATCHES "^(Linux|Gtk)$")
    string(TOLOWER ${export_name} component)
  elseif(export_name STREQUAL C)
    set(component linux)  # which it links
  endif()
  install(TARGETS ${name} EXPORT SelvioFacialCaptureTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${component} NAMELINK_COMPONENT dev)
endfunction()
