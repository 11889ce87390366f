# Installs the shared library, the public headers (the mirror made by
# PublicHeaders.cmake, under include/korvane), a CMake package
# (find_package(Korvane)) and korvane.pc.
include(CMakePackageConfigHelpers)

install(TARGETS korvane EXPORT KorvaneTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(DIRECTORY ${KORVANE_PUBLIC_INCLUDE_DIR}/korvane DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT KorvaneTargets NAMESPACE Korvane:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Korvane)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KorvaneConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KorvaneConfig.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Korvane)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KorvaneConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KorvaneConfig.cmake ${PROJECT_BINARY_DIR}/KorvaneConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Korvane)
# The .pc file finds its prefix relative to itself (one ".." per folder of
# <libdir>/pkgconfig), so the package can be moved; an absolute libdir pins it.
set(KORVANE_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
  set(KORVANE_PC_PREFIX ${CMAKE_INSTALL_PREFIX})
  set(KORVANE_PC_LIBDIR ${CMAKE_INSTALL_LIBDIR})
else()
  string(REGEX MATCHALL "[^/]+" _pc_parts "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
  set(KORVANE_PC_PREFIX "\${pcfiledir}")
  foreach(_part ${_pc_parts})
    string(APPEND KORVANE_PC_PREFIX "/..")
  endforeach()
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/korvane.pc.in ${PROJECT_BINARY_DIR}/korvane.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/korvane.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
