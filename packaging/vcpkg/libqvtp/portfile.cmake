# Builds the tree that this port lies in.
get_filename_component(SOURCE_PATH "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)

vcpkg_check_features(OUT_FEATURE_OPTIONS FEATURE_OPTIONS FEATURES tools QVTP_BUILD_TOOLS)
vcpkg_cmake_configure(
  SOURCE_PATH "${SOURCE_PATH}"
  OPTIONS -DQVTP_BUILD_TESTS=OFF -DQVTP_BUILD_EXAMPLES=OFF -DQVTP_INSTALL=ON ${FEATURE_OPTIONS})
vcpkg_cmake_install()
vcpkg_cmake_config_fixup(PACKAGE_NAME qvtp CONFIG_PATH lib/cmake/qvtp)
vcpkg_fixup_pkgconfig()
if("tools" IN_LIST FEATURES)
  vcpkg_copy_tools(TOOL_NAMES qvtp AUTO_CLEAN)
endif()
file(REMOVE_RECURSE "${CURRENT_PACKAGES_DIR}/debug/include" "${CURRENT_PACKAGES_DIR}/debug/share")
file(INSTALL "${CMAKE_CURRENT_LIST_DIR}/usage" DESTINATION "${CURRENT_PACKAGES_DIR}/share/${PORT}")
vcpkg_install_copyright(FILE_LIST "${SOURCE_PATH}/packaging/copyright")
