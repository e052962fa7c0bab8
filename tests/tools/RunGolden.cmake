# Runs one simulator script in a fresh directory and compares its output with the expectation,
# or checks the exit code and error text of a script that must be refused.
file(REMOVE_RECURSE "${WORK}")
file(MAKE_DIRECTORY "${WORK}/tmp")
execute_process(
  COMMAND "${SIM}" run "${SCRIPT}" --container "${WORK}/container" --tmp "${WORK}/tmp"
  OUTPUT_FILE "${WORK}/actual.jsonl"
  ERROR_VARIABLE errors
  RESULT_VARIABLE exit_code)

if(DEFINED EXPECT_EXIT)
  if(NOT exit_code EQUAL EXPECT_EXIT)
    message(FATAL_ERROR "expected exit ${EXPECT_EXIT}, got ${exit_code}: ${errors}")
  endif()
  string(FIND "${errors}" "${EXPECT_ERROR}" found)
  if(found EQUAL -1)
    message(FATAL_ERROR "expected the error '${EXPECT_ERROR}', got '${errors}'")
  endif()
  return()
endif()

if(NOT exit_code EQUAL 0)
  message(FATAL_ERROR "the script failed (${exit_code}): ${errors}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files "${WORK}/actual.jsonl" "${EXPECTED}"
                RESULT_VARIABLE different)
if(different)
  execute_process(COMMAND diff -u "${EXPECTED}" "${WORK}/actual.jsonl" OUTPUT_VARIABLE diff)
  string(SUBSTRING "${diff}" 0 4000 diff)
  message(FATAL_ERROR "output differs from ${EXPECTED}:\n${diff}")
endif()
