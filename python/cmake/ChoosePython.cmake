# Chooses the Python 3 the package is built for, unless Python3_EXECUTABLE is
# given: the first `python3` (on PATH, then Debian's /usr/bin/python3) that
# can import numpy, since the package is of no use without it. A pyenv or
# other self-built python3 first on PATH often has none while the system's
# has Debian's.
if(NOT DEFINED Python3_EXECUTABLE)
  find_program(_korvane_path_python3 python3)
  foreach(_candidate ${_korvane_path_python3} /usr/bin/python3)
    if(EXISTS ${_candidate})
      execute_process(COMMAND ${_candidate} -c "import numpy" RESULT_VARIABLE _no_numpy OUTPUT_QUIET ERROR_QUIET)
      if(_no_numpy EQUAL 0)
        set(Python3_EXECUTABLE ${_candidate} CACHE FILEPATH "The Python 3 the korvane package is built for")
        break()
      endif()
    endif()
  endforeach()
  unset(_korvane_path_python3 CACHE)
endif()
