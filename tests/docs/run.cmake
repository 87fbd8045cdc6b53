# Runs PROGRAM, under EMULATOR if there is one, and compares what it prints with
# the file EXPECTED.
execute_process(COMMAND ${EMULATOR} ${PROGRAM} COMMAND_ERROR_IS_FATAL ANY OUTPUT_VARIABLE printed)
string(REPLACE "\r\n" "\n" printed "${printed}")
file(READ ${EXPECTED} expected)
if(NOT printed STREQUAL expected)
  message(FATAL_ERROR "The examples print\n${printed}\nand the pages say\n${expected}")
endif()
