# Installs the build tree into a prefix of its own, moves it, and builds and runs the consumer against it, by
# find_package() and, where there is pkg-config, by that. It has a configuration as long as the parser module is there.
#
#     cmake -DBUILD_DIR=... -DWORK_DIR=... -DSOURCE_DIR=... [-DTOOLCHAIN=...] [-DEMULATOR=...] -P check.cmake
include(${CMAKE_CURRENT_LIST_DIR}/functions.cmake)

set(ENV{CXXFLAGS} "${CXXFLAGS}")
write_settings()
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/first)
file(RENAME ${WORK_DIR}/first ${WORK_DIR}/prefix) # an installed tree can be moved
file(GLOB_RECURSE library ${WORK_DIR}/prefix/*libqvtp.so ${WORK_DIR}/prefix/*libqvtp.dll)
file(GLOB_RECURSE module ${WORK_DIR}/prefix/*libqvtp-config.*)
run(${CHECK_LINKS} --objdump ${OBJDUMP} ${library} ${module})

set(options -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix)
if(TOOLCHAIN)
  list(APPEND options -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DCMAKE_FIND_ROOT_PATH=${WORK_DIR}/prefix
       -DQVTP_MINGW_PREFIX=${MINGW_PREFIX})
endif()
run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build -G Ninja ${options} -DCMAKE_CXX_COMPILER=${COMPILER}
    -DCMAKE_RUNTIME_OUTPUT_DIRECTORY=${WORK_DIR}/prefix/bin)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run_consumer("found by CMake" 2 ${WORK_DIR}/prefix/bin/consumer${SUFFIX})

if(TOOLCHAIN) # the program looks only for libraries of this machine
  file(STRINGS ${WORK_DIR}/prefix/lib/pkgconfig/qvtp.pc flags REGEX "^Cflags:")
  if(NOT flags STREQUAL "Cflags: -I\${includedir} -DNOGDI -DNOMINMAX")
    message(FATAL_ERROR "qvtp.pc: ${flags}")
  endif()
endif()

find_program(PKG_CONFIG pkg-config)
if(PKG_CONFIG AND NOT TOOLCHAIN AND NOT CMAKE_HOST_WIN32)
  file(GLOB_RECURSE pc ${WORK_DIR}/prefix/*qvtp.pc)
  get_filename_component(pc_dir ${pc} DIRECTORY)
  set(ENV{PKG_CONFIG_PATH} ${pc_dir})
  run(${PKG_CONFIG} --cflags --libs qvtp)
  separate_arguments(flags UNIX_COMMAND "${output}")
  separate_arguments(extra UNIX_COMMAND "${CXXFLAGS}")
  run(${COMPILER} -std=c++17 ${extra} ${SOURCE_DIR}/consumer.cpp -o ${WORK_DIR}/consumer ${flags} -pthread)
  get_filename_component(lib_dir ${pc_dir} DIRECTORY)
  set(ENV{LD_LIBRARY_PATH} ${lib_dir})
  run_consumer("built by pkg-config" 2 ${WORK_DIR}/consumer)
endif()

file(REMOVE ${module})
run_consumer("without the parser module" 10000 ${WORK_DIR}/prefix/bin/consumer${SUFFIX})
