# Builds the consumer as one line of a shell would, with the flags that
# pkg-config knows, and runs it. Takes PACKAGE, PKG_CONFIG, COMPILER, EMULATOR,
# SOURCE_DIR and WORK_DIR.
set(ENV{PKG_CONFIG_PATH} ${PACKAGE}/lib/pkgconfig)

function(ask_pkg_config result)
  execute_process(COMMAND ${PKG_CONFIG} ${ARGN} velt COMMAND_ERROR_IS_FATAL ANY
    OUTPUT_VARIABLE text OUTPUT_STRIP_TRAILING_WHITESPACE)
  separate_arguments(words UNIX_COMMAND "${text}")
  set(${result} ${words} PARENT_SCOPE)
endfunction()

ask_pkg_config(version --modversion)
ask_pkg_config(flags --cflags)
ask_pkg_config(libraries --libs)

file(REMOVE_RECURSE ${WORK_DIR})
file(COPY ${PACKAGE}/bin/ DESTINATION ${WORK_DIR})
execute_process(COMMAND_ERROR_IS_FATAL ANY WORKING_DIRECTORY ${SOURCE_DIR}
  COMMAND ${COMPILER} ${flags} -DPACKAGE_VERSION="${version}" main.cpp
    -o ${WORK_DIR}/consumer.exe ${libraries} -lversion)
execute_process(COMMAND_ERROR_IS_FATAL ANY COMMAND ${EMULATOR} ${WORK_DIR}/consumer.exe)
