# What `cmake --install` lays down: library, headers, and what find_package() and pkg-config need.
include(CMakePackageConfigHelpers)

set(QVTP_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qvtp)

install(
  TARGETS qvtp
  EXPORT qvtpTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# The module is nobody's to link with.
if(WIN32)
  install(TARGETS qvtp_config LIBRARY DESTINATION ${CMAKE_INSTALL_BINDIR})
else()
  install(TARGETS qvtp_config LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/qvtp)
endif()
install(EXPORT qvtpTargets NAMESPACE qvtp:: DESTINATION ${QVTP_CMAKE_DIR})

configure_package_config_file(cmake/qvtpConfig.cmake.in qvtpConfig.cmake INSTALL_DESTINATION ${QVTP_CMAKE_DIR})
write_basic_package_version_file(qvtpConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qvtpConfig.cmake ${PROJECT_BINARY_DIR}/qvtpConfigVersion.cmake
        DESTINATION ${QVTP_CMAKE_DIR})

# The prefix follows from where the file lies, so that an installed tree can be moved.
file(RELATIVE_PATH QVTP_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
# As the definitions of the target's interface.
set(QVTP_PC_DEFINITIONS "")
if(WIN32)
  set(QVTP_PC_DEFINITIONS " -DNOGDI -DNOMINMAX")
endif()
configure_file(cmake/qvtp.pc.in qvtp.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qvtp.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
