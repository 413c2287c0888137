# Runs COMMAND with ARGUMENTS and fails unless its standard output equals the file EXPECTED and
# it exits with status 0.
execute_process(COMMAND ${COMMAND} ${ARGUMENTS} OUTPUT_VARIABLE actual RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${COMMAND} exited with ${status}")
endif()
file(READ ${EXPECTED} expected)
if(NOT actual STREQUAL expected)
  message(FATAL_ERROR "output differs from ${EXPECTED}:\n${actual}")
endif()
