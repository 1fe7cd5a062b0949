# Runs the C consumer's --layout and compares its output with the expected
# layout: cmake -DLAUNCHER=... -DPROGRAM=... -DEXPECTED=... -P compare_layout.cmake
execute_process(COMMAND ${LAUNCHER} ${PROGRAM} --layout OUTPUT_VARIABLE actual RESULT_VARIABLE rc)
file(READ ${EXPECTED} expected)
if(NOT rc EQUAL 0 OR NOT actual STREQUAL expected)
  message(FATAL_ERROR "layout differs from ${EXPECTED} (exit ${rc}):\n${actual}")
endif()
