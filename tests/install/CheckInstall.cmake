# Installs the build into a scratch prefix, then builds and runs a tiny
# consumer twice: with find_package(Korvane) and with pkg-config. With TOOL
# set, the installed korvane tool must run from that prefix too, with no
# help from the environment.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix}
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed")
endif()

if(TOOL)
  execute_process(COMMAND ${prefix}/bin/korvane info RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "installed tool failed to run: ${err}")
  endif()
endif()

execute_process(COMMAND ${CMAKE_COMMAND} -S ${CONSUMER_SRC} -B ${WORK_DIR}/build
                        -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX}
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "consumer configure failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/build RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "consumer build failed")
endif()
execute_process(COMMAND ${WORK_DIR}/build/consumer RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "consumer (find_package) failed to run")
endif()

find_program(PKG_CONFIG pkg-config)
if(PKG_CONFIG)
  file(GLOB_RECURSE pc_files ${prefix}/*/korvane.pc)
  list(GET pc_files 0 pc)
  get_filename_component(pc_dir ${pc} DIRECTORY)
  set(ENV{PKG_CONFIG_PATH} ${pc_dir})
  execute_process(COMMAND ${PKG_CONFIG} --cflags --libs korvane OUTPUT_VARIABLE flags
                  OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "pkg-config does not know korvane")
  endif()
  separate_arguments(flags UNIX_COMMAND "${flags}")
  execute_process(COMMAND ${CXX} -std=c++17 ${CONSUMER_SRC}/main.cpp ${flags}
                          -o ${WORK_DIR}/consumer_pc RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "consumer (pkg-config) failed to build")
  endif()
  get_filename_component(libdir ${pc_dir} DIRECTORY)
  set(ENV{LD_LIBRARY_PATH} ${libdir})
  execute_process(COMMAND ${WORK_DIR}/consumer_pc RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "consumer (pkg-config) failed to run")
  endif()
endif()
