# cmake -DFILES="a;b" -P not_needed.cmake
# Fails when any of FILES lists the bus library among the libraries the
# dynamic loader must load before the program starts.
find_program(READELF readelf REQUIRED)
foreach(file IN LISTS FILES)
  execute_process(COMMAND "${READELF}" -d "${file}" OUTPUT_VARIABLE dynamic RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "readelf -d ${file} failed")
  endif()
  if(NOT dynamic MATCHES "\\(NEEDED\\)")
    message(FATAL_ERROR "${file} lists no needed libraries at all: not a dynamic program?")
  endif()
  if(dynamic MATCHES "\\(NEEDED\\)[^\n]*libsystemd")
    message(FATAL_ERROR "${file} needs libsystemd at start")
  endif()
endforeach()
