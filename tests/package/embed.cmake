# Has the library as part of another project's build: by add_subdirectory() the shared one, by FetchContent the static one.
# That is installed too, and the consumer is built with what was installed, by find_package() and by pkg-config.
#
#     cmake -DWORK_DIR=... -DSOURCE_DIR=<tests/package> -DQVTP_SOURCE=<the tree of the library> -DCOMPILER=...
#           -DOBJDUMP=... -P embed.cmake
include(${CMAKE_CURRENT_LIST_DIR}/functions.cmake)

function(configure way build)
  run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/embedded -B ${build} -G Ninja -DWAY=${way} -DQVTP_SOURCE=${QVTP_SOURCE}
      -DCMAKE_CXX_COMPILER=${COMPILER} -DCMAKE_EXPORT_COMPILE_COMMANDS=ON -DCMAKE_INSTALL_LIBDIR=lib
      -DFETCHCONTENT_FULLY_DISCONNECTED=ON ${ARGN})
endfunction()

# The host project gets the library, and nothing else of ours.
function(expect_library_alone build)
  file(READ ${build}/compile_commands.json commands)
  string(JSON last LENGTH "${commands}")
  math(EXPR last "${last} - 1")
  foreach(i RANGE ${last})
    string(JSON file GET "${commands}" ${i} file)
    string(JSON command GET "${commands}" ${i} command)
    if(file STREQUAL "${SOURCE_DIR}/consumer.cpp")
      continue()
    endif()
    if(NOT file MATCHES "^${QVTP_SOURCE}/src/|^${build}/")
      message(FATAL_ERROR "${file} is built too.")
    endif()
    if(command MATCHES "-Werror")
      message(FATAL_ERROR "Warnings are errors: ${command}")
    endif()
  endforeach()
  run(${CMAKE_CTEST_COMMAND} --test-dir ${build} --show-only)
  if(NOT output MATCHES "Total Tests: 0")
    message(FATAL_ERROR "There are tests: ${output}")
  endif()
  file(STRINGS ${build}/CMakeCache.txt shared REGEX "^BUILD_SHARED_LIBS:")
  if(shared)
    message(FATAL_ERROR "The host project's libraries are changed: ${shared}")
  endif()
endfunction()

function(expect_nothing_installed build)
  run(${CMAKE_COMMAND} --install ${build} --prefix ${WORK_DIR}/nothing)
  file(GLOB_RECURSE installed ${WORK_DIR}/nothing/*)
  if(installed)
    message(FATAL_ERROR "Installed are ${installed}")
  endif()
endfunction()

# Whether a program needs the library's file. A static one needs the parser instead.
function(expect_static program static)
  run(${OBJDUMP} -p ${program})
  set(linked OFF)
  if(output MATCHES "NEEDED +libxerces-c" AND NOT output MATCHES "NEEDED +libqvtp")
    set(linked ON)
  endif()
  if(NOT linked STREQUAL static)
    message(FATAL_ERROR "${program} needs ${output}")
  endif()
endfunction()

write_settings()

set(shared ${WORK_DIR}/shared)
configure(add_subdirectory ${shared})
expect_library_alone(${shared})
run(${CMAKE_COMMAND} --build ${shared})
expect_nothing_installed(${shared})
expect_static(${shared}/consumer OFF)
run_consumer("with a shared part" 2 ${shared}/consumer)

set(static ${WORK_DIR}/static)
set(prefix ${WORK_DIR}/prefix)
configure(FetchContent ${static} -DBUILD_SHARED_LIBS=OFF -DQVTP_INSTALL=ON)
run(${CMAKE_COMMAND} --build ${static})
expect_static(${static}/consumer ON)
run_consumer("with a static part" 2 ${static}/consumer)
run(${CMAKE_COMMAND} --install ${static} --prefix ${prefix})
file(GLOB_RECURSE module ${prefix}/*qvtp*.so*)
if(module)
  message(FATAL_ERROR "A static installation has ${module}")
endif()

run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/found -G Ninja -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_CXX_COMPILER=${COMPILER})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/found)
expect_static(${WORK_DIR}/found/consumer ON)
run_consumer("with the static package" 2 ${WORK_DIR}/found/consumer)

find_program(PKG_CONFIG pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
run(${PKG_CONFIG} --static --cflags --libs qvtp)
separate_arguments(flags UNIX_COMMAND "${output}")
run(${COMPILER} -std=c++17 ${SOURCE_DIR}/consumer.cpp -o ${WORK_DIR}/consumer ${flags})
expect_static(${WORK_DIR}/consumer ON)
run_consumer("built by pkg-config --static" 2 ${WORK_DIR}/consumer)

# The environment switches the log of a static program on, although nothing in the program asks for that.
set(ENV{QVTP_LOG} INFO:${WORK_DIR}/lines.log)
run_consumer("with a log" 2 ${WORK_DIR}/consumer)
file(STRINGS ${WORK_DIR}/lines.log lines REGEX "Wrote [0-9]+ bytes")
if(NOT lines)
  message(FATAL_ERROR "The log lacks its lines.")
endif()
