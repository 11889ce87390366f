# The installed API under one prefix: every header marked "// Public header"
# in its first line is mirrored into <build>/include/korvane/<its folder>,
# with its includes of other project headers written as <korvane/...>. The
# mirror is what gets installed and what a consumer in the same tree
# (add_subdirectory) includes, so every application writes
#   #include <korvane/effects/focus_blur/FocusBlur.h>
# Editing a public header re-runs the configure step, which refreshes it.
set(KORVANE_PUBLIC_INCLUDE_DIR ${PROJECT_BINARY_DIR}/include)

function(korvane_mirror_header src dst)
  file(READ ${src} _text)
  string(REGEX REPLACE "#include \"((core|engine|effects)/[^\"]+)\"" "#include <korvane/\\1>" _text "${_text}")
  set(_old "")
  if(EXISTS ${dst})
    file(READ ${dst} _old)
  endif()
  if(NOT _old STREQUAL _text)  # unchanged files keep their time stamps
    file(WRITE ${dst} "${_text}")
  endif()
endfunction()

file(GLOB_RECURSE _korvane_headers CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}
  ${PROJECT_SOURCE_DIR}/engine/*.h ${PROJECT_SOURCE_DIR}/core/*.h ${PROJECT_SOURCE_DIR}/effects/*.h)
foreach(_h ${_korvane_headers})
  set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${_h})
  file(STRINGS ${PROJECT_SOURCE_DIR}/${_h} _marker LIMIT_COUNT 1)
  if(_marker MATCHES "^// Public header")
    korvane_mirror_header(${PROJECT_SOURCE_DIR}/${_h} ${KORVANE_PUBLIC_INCLUDE_DIR}/korvane/${_h})
  endif()
endforeach()
korvane_mirror_header(${PROJECT_BINARY_DIR}/generated/core/Version.h ${KORVANE_PUBLIC_INCLUDE_DIR}/korvane/core/Version.h)
