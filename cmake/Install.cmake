# What `cmake --install` lays down, in components: runtime (the library), development (headers, and what find_package()
# and pkg-config need), tools (the program qvtp) and documentation.
include(CMakePackageConfigHelpers)

set(QVTP_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qvtp)

install(
  TARGETS qvtp
  EXPORT qvtpTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          COMPONENT runtime
          NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
# The module is nobody's to link with.
if(QVTP_STATIC)
  # It is linked in.
elseif(WIN32)
  install(TARGETS qvtp_config LIBRARY DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
else()
  install(TARGETS qvtp_config LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/qvtp COMPONENT runtime)
endif()
install(EXPORT qvtpTargets NAMESPACE qvtp:: DESTINATION ${QVTP_CMAKE_DIR} COMPONENT development)

configure_package_config_file(cmake/qvtpConfig.cmake.in qvtpConfig.cmake INSTALL_DESTINATION ${QVTP_CMAKE_DIR})
write_basic_package_version_file(qvtpConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qvtpConfig.cmake ${PROJECT_BINARY_DIR}/qvtpConfigVersion.cmake
        DESTINATION ${QVTP_CMAKE_DIR} COMPONENT development)

# The prefix follows from where the file lies, so that an installed tree can be moved.
file(RELATIVE_PATH QVTP_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
# As the definitions of the target's interface.
set(QVTP_PC_DEFINITIONS "")
if(WIN32)
  set(QVTP_PC_DEFINITIONS " -DNOGDI -DNOMINMAX")
endif()
# What `pkg-config --static` adds.
set(QVTP_PC_PRIVATE "")
if(QVTP_STATIC)
  string(APPEND QVTP_PC_DEFINITIONS " -DQVTP_STATIC")
  set(QVTP_PC_PRIVATE " -lxerces-c -pthread")
endif()
configure_file(cmake/qvtp.pc.in qvtp.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qvtp.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# In folders as here, so that links between pages lead somewhere.
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
install(FILES README.md CHANGELOG.md SECURITY.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
