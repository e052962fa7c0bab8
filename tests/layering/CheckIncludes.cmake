# Fails when a file under ROOT includes a header that its layer may not see.
#   ROOT:      the folder whose .h and .cpp files are read
#   FORBIDDEN: a regular expression; an #include line that matches it is an offence
#   WHAT:      what the folder must not include, for the messages
file(GLOB_RECURSE sources "${ROOT}/*.h" "${ROOT}/*.cpp")
set(offenders "")
foreach(source IN LISTS sources)
  file(STRINGS "${source}" lines REGEX "^[ \t]*#[ \t]*include")
  foreach(line IN LISTS lines)
    if(line MATCHES "${FORBIDDEN}")
      list(APPEND offenders "${source}: ${line}")
    endif()
  endforeach()
endforeach()
if(offenders)
  string(REPLACE ";" "\n" offenders "${offenders}")
  message(FATAL_ERROR "${ROOT} includes ${WHAT}:\n${offenders}")
endif()
list(LENGTH sources count)
if(count EQUAL 0)
  message(FATAL_ERROR "${ROOT} holds no source file: the check reads the wrong folder")
endif()
message(STATUS "${count} files under ${ROOT} include no ${WHAT}")
