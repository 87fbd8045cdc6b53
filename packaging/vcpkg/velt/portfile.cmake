# The source archive of the release lies beside this file.
vcpkg_check_linkage(ONLY_DYNAMIC_LIBRARY)
vcpkg_extract_source_archive(SOURCE_PATH
  ARCHIVE "${CMAKE_CURRENT_LIST_DIR}/velt-${VERSION}-source.tar.gz")

vcpkg_cmake_configure(SOURCE_PATH "${SOURCE_PATH}"
  OPTIONS -DVELT_TESTS=OFF -DVELT_EXAMPLES=OFF)
vcpkg_cmake_install()
vcpkg_cmake_config_fixup(CONFIG_PATH lib/cmake/velt)
vcpkg_fixup_pkgconfig()

file(REMOVE_RECURSE "${CURRENT_PACKAGES_DIR}/debug/include" "${CURRENT_PACKAGES_DIR}/debug/share"
  "${CURRENT_PACKAGES_DIR}/share/licenses")
vcpkg_install_copyright(FILE_LIST "${SOURCE_PATH}/LICENSE")
