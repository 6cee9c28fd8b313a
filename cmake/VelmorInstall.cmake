# Installation: headers flat under include/velmor, the library shared (with SONAME) and static, a CMake
# package (Velmor::velmor, Velmor::velmor_static) and velmor.pc. Included last, so that every service
# block has added its library to `velmor` by now.
include(GNUInstallDirs)

# The shared library is the static one's objects, whole; so nothing is compiled twice.
set_target_properties(velmor PROPERTIES POSITION_INDEPENDENT_CODE ON)
add_library(velmor_shared SHARED ${CMAKE_CURRENT_LIST_DIR}/VelmorShared.cpp)
target_link_libraries(velmor_shared PRIVATE "$<LINK_LIBRARY:WHOLE_ARCHIVE,velmor>")
set_target_properties(velmor_shared PROPERTIES
  OUTPUT_NAME velmor
  VERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}.0
  SOVERSION ${PROJECT_VERSION_MAJOR})

install(TARGETS velmor velmor_shared
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)

# Public headers: the framework, the boundary and run-time services, the service choice and each
# service's class (the in-process one's control surface drives tests). Private headers of a service
# folder (…Internal.h) stay out. Globbed, so that moving files between folders needs no change here.
file(GLOB VELMOR_PUBLIC_HEADERS CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/Source/SourceFiles/Velmor/*.h
  ${PROJECT_SOURCE_DIR}/Source/SourceFiles/Platform/*.h
  ${PROJECT_SOURCE_DIR}/Source/SourceFiles/Platform/*/Velmor*MIDIService.h)
list(FILTER VELMOR_PUBLIC_HEADERS EXCLUDE REGEX "Internal\\.h$")
install(FILES ${VELMOR_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/velmor COMPONENT dev)

# What a program that links Velmor needs besides it: read from `velmor` itself, so that a service
# added later (with its pkg-config module) shows up in the package and in velmor.pc by itself.
get_target_property(_velmor_links velmor INTERFACE_LINK_LIBRARIES)
get_target_property(_velmor_defs velmor INTERFACE_COMPILE_DEFINITIONS)
set(VELMOR_PKG_MODULES "")
foreach(_item IN LISTS _velmor_links)
  if(_item MATCHES "^PkgConfig::(.+)$")
    set(_prefix ${CMAKE_MATCH_1})
    if(${_prefix}_MODULE_NAME)
      list(APPEND VELMOR_PKG_MODULES ${${_prefix}_MODULE_NAME})
    else()
      string(TOLOWER ${_prefix} _module)
      list(APPEND VELMOR_PKG_MODULES ${_module})
    endif()
  endif()
endforeach()
set(VELMOR_COMPILE_DEFINITIONS "")
set(VELMOR_PC_CFLAGS "")
if(_velmor_defs)
  foreach(_def IN LISTS _velmor_defs)
    list(APPEND VELMOR_COMPILE_DEFINITIONS ${_def})
    string(APPEND VELMOR_PC_CFLAGS " -D${_def}")
  endforeach()
endif()
list(JOIN VELMOR_PKG_MODULES ", " VELMOR_PC_REQUIRES_PRIVATE)

set(VELMOR_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Velmor)
include(CMakePackageConfigHelpers)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/VelmorConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/VelmorConfig.cmake
  INSTALL_DESTINATION ${VELMOR_CMAKE_DIR}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/VelmorConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/VelmorConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/VelmorConfigVersion.cmake
  DESTINATION ${VELMOR_CMAKE_DIR} COMPONENT dev)

# The .pc file finds the prefix from where it lies, so that an install to any --prefix works.
string(REGEX REPLACE "[^/]+" ".." VELMOR_PC_UP "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
configure_file(${CMAKE_CURRENT_LIST_DIR}/velmor.pc.in ${CMAKE_CURRENT_BINARY_DIR}/velmor.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/velmor.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# A Debian package of all of it; dpkg-shlibdeps works out the run-time dependencies (libasound2 where
# the ALSA service is built), and the development packages that the .pc file and the CMake package
# name are added by hand.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME velmor)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION}.0)
set(CPACK_PACKAGE_CONTACT "Velmor developers <velmor@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Object-level MIDI I/O framework for C++20, and the velmor command")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(_velmor_dev_depends "")
foreach(_module IN LISTS VELMOR_PKG_MODULES)
  if(_module STREQUAL "alsa")
    list(APPEND _velmor_dev_depends libasound2-dev)
  elseif(_module MATCHES "^jack")
    list(APPEND _velmor_dev_depends "libjack-jackd2-dev | libjack-dev")
  endif()
endforeach()
list(JOIN _velmor_dev_depends ", " CPACK_DEBIAN_PACKAGE_RECOMMENDS)
include(CPack)
