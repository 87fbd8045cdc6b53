# The package as its users meet it: consumer/ is built against an installed copy
# through CMake and through pkg-config, and with velt as a part of its own
# project.
set(package ${CMAKE_CURRENT_BINARY_DIR}/package)
set(consumer ${CMAKE_CURRENT_SOURCE_DIR}/consumer)

add_test(NAME package_install COMMAND ${CMAKE_COMMAND}
  -D BUILD_DIR=${PROJECT_BINARY_DIR} -D CONFIG=$<CONFIG> -D PACKAGE=${package}
  -P ${consumer}/install.cmake)
set_tests_properties(package_install PROPERTIES FIXTURES_SETUP package)

# velt_add_consumer_test(NAME SOURCE COMMAND...): configures and builds a project against the
# package, with its toolchain file, where there is one, and runs the command.
function(velt_add_consumer_test name source)
  set(options -D CMAKE_BUILD_TYPE=$<CONFIG> -D CMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER}
    -D CMAKE_PREFIX_PATH=${package})
  if(CMAKE_TOOLCHAIN_FILE)
    cmake_path(GET CMAKE_TOOLCHAIN_FILE FILENAME toolchain)
    list(APPEND options -D CMAKE_TOOLCHAIN_FILE=${package}/lib/cmake/velt/${toolchain}
      -D CMAKE_CROSSCOMPILING_EMULATOR=${CMAKE_CROSSCOMPILING_EMULATOR})
  endif()
  add_test(NAME ${name} COMMAND ${CMAKE_CTEST_COMMAND}
    --build-and-test ${source} ${CMAKE_CURRENT_BINARY_DIR}/${name}
    --build-generator ${CMAKE_GENERATOR} --build-noclean --build-options ${options}
    --test-command ${ARGN})
  set_tests_properties(${name} PROPERTIES FIXTURES_REQUIRED package TIMEOUT 120)
endfunction()

velt_add_consumer_test(package_by_cmake ${consumer}
  ${CMAKE_CTEST_COMMAND} --output-on-failure --no-tests=error)

# The project of the quickstart: its first two blocks with a language.
set(quickstart ${CMAKE_CURRENT_BINARY_DIR}/quickstart)
set(page ${PROJECT_SOURCE_DIR}/docs/quickstart.md)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${page})
file(READ ${page} text)
foreach(name cmake:CMakeLists.txt cpp:hotel.cpp)
  string(REPLACE ":" ";" name ${name})
  list(POP_FRONT name language)
  string(FIND "${text}" "```${language}\n" begin)
  string(LENGTH "```${language}\n" length)
  math(EXPR begin "${begin} + ${length}")
  string(SUBSTRING "${text}" ${begin} -1 block)
  string(FIND "${block}" "```" end)
  string(SUBSTRING "${block}" 0 ${end} block)
  file(CONFIGURE OUTPUT ${quickstart}/${name} CONTENT "${block}" @ONLY)
endforeach()
velt_add_consumer_test(package_quickstart ${quickstart} ${CMAKE_CROSSCOMPILING_EMULATOR} hotel.exe)
set_tests_properties(package_quickstart PROPERTIES PASS_REGULAR_EXPRESSION "3 guests in a room")

find_program(VELT_PKG_CONFIG NAMES pkgconf pkg-config)
if(VELT_PKG_CONFIG)
  add_test(NAME package_by_pkg_config COMMAND ${CMAKE_COMMAND}
    -D PACKAGE=${package} -D PKG_CONFIG=${VELT_PKG_CONFIG} -D COMPILER=${CMAKE_CXX_COMPILER}
    -D EMULATOR=${CMAKE_CROSSCOMPILING_EMULATOR} -D SOURCE_DIR=${consumer}
    -D WORK_DIR=${CMAKE_CURRENT_BINARY_DIR}/package_by_pkg_config -P ${consumer}/by_hand.cmake)
  set_tests_properties(package_by_pkg_config PROPERTIES FIXTURES_REQUIRED package TIMEOUT 120)
endif()

# What does not depend on the build type is tested in one of them: velt as a
# subproject, as far as a client's object, which shows that the target and its
# flags arrive without building the whole library once more; and that each public
# header includes what it needs.
if(CMAKE_BUILD_TYPE STREQUAL "Debug")
  set(subproject ${CMAKE_CURRENT_BINARY_DIR}/subproject)
  set(options -D CMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER} -D VELT_SOURCE=${PROJECT_SOURCE_DIR})
  if(CMAKE_TOOLCHAIN_FILE)
    list(APPEND options -D CMAKE_TOOLCHAIN_FILE=${CMAKE_TOOLCHAIN_FILE})
  endif()
  add_test(NAME subproject_configure COMMAND ${CMAKE_COMMAND}
    -S ${consumer} -B ${subproject} -G ${CMAKE_GENERATOR} ${options})
  set_tests_properties(subproject_configure PROPERTIES FIXTURES_SETUP subproject)
  add_test(NAME subproject_compile COMMAND ${CMAKE_COMMAND}
    --build ${subproject} --target CMakeFiles/consumer.dir/main.cpp${CMAKE_CXX_OUTPUT_EXTENSION})
  set_tests_properties(subproject_compile PROPERTIES FIXTURES_REQUIRED subproject TIMEOUT 120)

  set_target_properties(velt PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
  add_test(NAME public_headers COMMAND ${CMAKE_COMMAND}
    --build ${PROJECT_BINARY_DIR} --target velt_verify_interface_header_sets)
  set_tests_properties(public_headers PROPERTIES TIMEOUT 600)
endif()
