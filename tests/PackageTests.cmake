# The package as its users meet it: consumer/ is built against an installed copy
# through CMake and through pkg-config, and with velt as a part of its own
# project.
set(package ${CMAKE_CURRENT_BINARY_DIR}/package)
set(consumer ${CMAKE_CURRENT_SOURCE_DIR}/consumer)

add_test(NAME package_install COMMAND ${CMAKE_COMMAND}
  -D BUILD_DIR=${PROJECT_BINARY_DIR} -D CONFIG=$<CONFIG> -D PACKAGE=${package}
  -P ${consumer}/install.cmake)
set_tests_properties(package_install PROPERTIES FIXTURES_SETUP package)

# velt_add_consumer_test(NAME OPTION...): configures, builds and tests consumer/.
function(velt_add_consumer_test name)
  set(options -D CMAKE_BUILD_TYPE=$<CONFIG> -D CMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER} ${ARGN})
  if(CMAKE_TOOLCHAIN_FILE)
    list(APPEND options -D CMAKE_TOOLCHAIN_FILE=${CMAKE_TOOLCHAIN_FILE})
  endif()
  add_test(NAME ${name} COMMAND ${CMAKE_CTEST_COMMAND}
    --build-and-test ${consumer} ${CMAKE_CURRENT_BINARY_DIR}/${name}
    --build-generator ${CMAKE_GENERATOR} --build-noclean --build-options ${options}
    --test-command ${CMAKE_CTEST_COMMAND} --output-on-failure --no-tests=error)
endfunction()

velt_add_consumer_test(package_by_cmake -D CMAKE_PREFIX_PATH=${package})
set_tests_properties(package_by_cmake PROPERTIES FIXTURES_REQUIRED package TIMEOUT 120)

find_program(VELT_PKG_CONFIG NAMES pkgconf pkg-config)
if(VELT_PKG_CONFIG)
  add_test(NAME package_by_pkg_config COMMAND ${CMAKE_COMMAND}
    -D PACKAGE=${package} -D PKG_CONFIG=${VELT_PKG_CONFIG} -D COMPILER=${CMAKE_CXX_COMPILER}
    -D EMULATOR=${CMAKE_CROSSCOMPILING_EMULATOR} -D SOURCE_DIR=${consumer}
    -D WORK_DIR=${CMAKE_CURRENT_BINARY_DIR}/package_by_pkg_config -P ${consumer}/by_hand.cmake)
  set_tests_properties(package_by_pkg_config PROPERTIES FIXTURES_REQUIRED package TIMEOUT 120)
endif()

# What does not depend on the build type is tested in one of them: the library
# as a subproject, which builds all of it once more, and that each public header
# includes what it needs.
if(CMAKE_BUILD_TYPE STREQUAL "Debug")
  velt_add_consumer_test(subproject -D VELT_SOURCE=${PROJECT_SOURCE_DIR})
  set_tests_properties(subproject PROPERTIES TIMEOUT 900)

  set_target_properties(velt PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
  add_test(NAME public_headers COMMAND ${CMAKE_COMMAND}
    --build ${PROJECT_BINARY_DIR} --target velt_verify_interface_header_sets)
  set_tests_properties(public_headers PROPERTIES TIMEOUT 300)
endif()
