# velt_copy_runtime(TARGET): each time TARGET has been linked, copies velt.dll and the
# run-time DLLs of the compiler beside it, where Windows and Wine look for them. Call it
# in the folder that defines TARGET. $<TARGET_RUNTIME_DLLS> knows velt.dll alone.
function(velt_copy_runtime target)
  get_target_property(dlls velt::velt VELT_RUNTIME_DLLS)
  list(TRANSFORM dlls PREPEND "$<TARGET_FILE_DIR:velt::velt>/")
  add_custom_command(TARGET ${target} POST_BUILD VERBATIM
    COMMAND ${CMAKE_COMMAND} -E copy_if_different ${dlls} $<TARGET_FILE_DIR:${target}>)
endfunction()
