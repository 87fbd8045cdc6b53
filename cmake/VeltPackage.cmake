# What `cmake --install` gives: headers, DLL, import library, the run-time DLLs
# that the DLL shares with its clients, the views for debuggers, and the descriptions
# for CMake and for pkg-config. The package can be moved: nothing in it names a folder outside.
# Included last: by then every subsystem has added its part to the target.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/velt)

install(TARGETS velt EXPORT velt FILE_SET HEADERS)
install(FILES ${VELT_RUNTIME_DLLS} DESTINATION ${CMAKE_INSTALL_BINDIR})
install(EXPORT velt FILE veltTargets.cmake NAMESPACE velt:: DESTINATION ${package_dir})

configure_package_config_file(cmake/veltConfig.cmake.in ${PROJECT_BINARY_DIR}/veltConfig.cmake
  INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
# Until 1.0 a minor version may break its users.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/veltConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/veltConfig.cmake ${PROJECT_BINARY_DIR}/veltConfigVersion.cmake
  cmake/VeltRuntime.cmake DESTINATION ${package_dir})

# For clients that are cross-compiled as velt was.
if(CMAKE_CROSSCOMPILING)
  install(FILES cmake/mingw-w64.cmake DESTINATION ${package_dir})
  if(velt_tools MATCHES ucrt)
    install(FILES cmake/ucrt64.cmake DESTINATION ${package_dir})
  endif()
endif()

# The flags that the target hands to its users, for a compiler that is called by
# hand. Only C++ is compiled with them, so the condition on the language goes, and a
# choice by a property of the client's target becomes its default.
function(velt_usage_flags result property prefix)
  get_target_property(items velt ${property})
  set(flags "")
  foreach(item IN LISTS items)
    string(REGEX REPLACE "\\$<IF:\\$<BOOL:\\$<TARGET_PROPERTY:[^<>]*>>,[^,]*,([^<>]*)>" "\\1" item "${item}")
    string(REGEX REPLACE "^\\$<\\$<COMPILE_LANGUAGE:CXX>:([^<>]*)>$" "\\1" item "${item}")
    if(item MATCHES "\\$<")
      message(FATAL_ERROR "velt.pc cannot express ${item}, which ${property} of velt contains.")
    endif()
    if(item)
      string(APPEND flags " ${prefix}${item}")
    endif()
  endforeach()
  set(${result} "${flags}" PARENT_SCOPE)
endfunction()

velt_usage_flags(pc_cflags INTERFACE_COMPILE_OPTIONS "")
velt_usage_flags(pc_link_options INTERFACE_LINK_OPTIONS "")
velt_usage_flags(pc_libraries INTERFACE_LINK_LIBRARIES "-l")
file(RELATIVE_PATH pc_to_prefix
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" pc_to_prefix "${pc_to_prefix}")
configure_file(cmake/velt.pc.in ${PROJECT_BINARY_DIR}/velt.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/velt.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES debuggers/velt.dll-gdb.py DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES debuggers/velt.natvis DESTINATION ${CMAKE_INSTALL_DATADIR}/velt)
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DATADIR}/licenses/velt)
