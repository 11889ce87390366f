# Installs the shared library, the public headers (those marked as such in
# their first line), a CMake package (find_package(Korvane)) and korvane.pc.
include(CMakePackageConfigHelpers)

install(TARGETS korvane EXPORT KorvaneTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

file(GLOB_RECURSE _headers CONFIGURE_DEPENDS RELATIVE ${CMAKE_SOURCE_DIR}
  ${CMAKE_SOURCE_DIR}/engine/*.h ${CMAKE_SOURCE_DIR}/core/*.h ${CMAKE_SOURCE_DIR}/effects/*.h)
foreach(_h ${_headers})
  file(STRINGS ${CMAKE_SOURCE_DIR}/${_h} _marker LIMIT_COUNT 1)
  if(_marker MATCHES "^// Public header")
    get_filename_component(_dir ${_h} DIRECTORY)
    install(FILES ${CMAKE_SOURCE_DIR}/${_h} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/korvane/${_dir})
  endif()
endforeach()
install(FILES ${CMAKE_BINARY_DIR}/generated/core/Version.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/korvane/core)

install(EXPORT KorvaneTargets NAMESPACE Korvane:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Korvane)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/KorvaneConfig.cmake.in
  ${CMAKE_BINARY_DIR}/KorvaneConfig.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Korvane)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/KorvaneConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/KorvaneConfig.cmake ${CMAKE_BINARY_DIR}/KorvaneConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Korvane)
# The .pc file finds its prefix relative to itself, so the package can be moved.
file(RELATIVE_PATH KORVANE_PC_TO_PREFIX /root/${CMAKE_INSTALL_LIBDIR}/pkgconfig /root)
configure_file(${CMAKE_SOURCE_DIR}/cmake/korvane.pc.in ${CMAKE_BINARY_DIR}/korvane.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/korvane.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
