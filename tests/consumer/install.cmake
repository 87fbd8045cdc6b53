# Installs a build (BUILD_DIR, CONFIG) and moves the result to PACKAGE, so that
# whatever names the first folder is found out.
file(REMOVE_RECURSE ${PACKAGE} ${PACKAGE}.before)
execute_process(COMMAND_ERROR_IS_FATAL ANY OUTPUT_QUIET
  COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --config ${CONFIG} --prefix ${PACKAGE}.before)
file(RENAME ${PACKAGE}.before ${PACKAGE})
