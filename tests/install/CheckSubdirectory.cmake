# Configures, builds and runs an application that adds the Korvane source
# tree with add_subdirectory (only the libraries are built there).
file(REMOVE_RECURSE ${WORK_DIR})
execute_process(COMMAND ${CMAKE_COMMAND} -S ${CONSUMER_SRC} -B ${WORK_DIR}
                        -DKORVANE_SOURCE_DIR=${KORVANE_SOURCE_DIR} -DCMAKE_CXX_COMPILER=${CXX}
                        -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER}
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "subdirectory consumer configure failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR} --target consumer --parallel 2 RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "subdirectory consumer build failed")
endif()
execute_process(COMMAND ${WORK_DIR}/consumer RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "subdirectory consumer failed to run")
endif()
