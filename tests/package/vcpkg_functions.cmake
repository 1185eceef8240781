# Runs the port with stand-ins for the functions of vcpkg: they look whether what they are given is there.
#
#     cmake -DPORTFILE=... -DFEATURES=... -DBUILD_DIR=<a built tree> -DCURRENT_PACKAGES_DIR=... -P vcpkg_functions.cmake
cmake_minimum_required(VERSION 3.25)
set(PORT libqvtp)

function(expect_file file)
  if(NOT EXISTS "${file}")
    message(FATAL_ERROR "There is no ${file}")
  endif()
endfunction()

function(vcpkg_check_features)
  cmake_parse_arguments(PARSE_ARGV 0 arg "" OUT_FEATURE_OPTIONS FEATURES)
  list(POP_FRONT arg_FEATURES feature option)
  if(feature IN_LIST FEATURES)
    set(${arg_OUT_FEATURE_OPTIONS} -D${option}=ON PARENT_SCOPE)
  else()
    set(${arg_OUT_FEATURE_OPTIONS} -D${option}=OFF PARENT_SCOPE)
  endif()
endfunction()

function(vcpkg_cmake_configure)
  cmake_parse_arguments(PARSE_ARGV 0 arg "" SOURCE_PATH OPTIONS)
  execute_process(
    COMMAND ${CMAKE_COMMAND} -S ${arg_SOURCE_PATH} -B ${CURRENT_PACKAGES_DIR}/configured -G Ninja ${arg_OPTIONS}
    OUTPUT_VARIABLE output ERROR_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
  if(output MATCHES "not used by the project")
    message(FATAL_ERROR "${output}")
  endif()
endfunction()

function(vcpkg_cmake_install)
  execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${CURRENT_PACKAGES_DIR}
                  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
endfunction()

function(vcpkg_cmake_config_fixup)
  cmake_parse_arguments(PARSE_ARGV 0 arg "" "PACKAGE_NAME;CONFIG_PATH" "")
  expect_file(${CURRENT_PACKAGES_DIR}/${arg_CONFIG_PATH}/${arg_PACKAGE_NAME}Config.cmake)
endfunction()

function(vcpkg_fixup_pkgconfig)
  expect_file(${CURRENT_PACKAGES_DIR}/lib/pkgconfig/qvtp.pc)
endfunction()

function(vcpkg_copy_tools)
  cmake_parse_arguments(PARSE_ARGV 0 arg AUTO_CLEAN "" TOOL_NAMES)
  expect_file(${CURRENT_PACKAGES_DIR}/bin/${arg_TOOL_NAMES})
endfunction()

function(vcpkg_install_copyright)
  cmake_parse_arguments(PARSE_ARGV 0 arg "" "" FILE_LIST)
  expect_file(${arg_FILE_LIST})
endfunction()

include(${PORTFILE})
expect_file(${CURRENT_PACKAGES_DIR}/share/${PORT}/usage)
