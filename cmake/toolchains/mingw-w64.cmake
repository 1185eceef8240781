# Builds for 64-bit Windows on Linux, with the mingw-w64 compilers as Debian packages them.
#
# QVTP_MINGW_PREFIX names the directory of the libraries built for Windows: a cache variable first, then the environment
# variable of that name, then the place where scripts/build-mingw-dependencies leaves them.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

# Only the -posix flavour of the compilers has std::thread and std::mutex.
set(qvtp_mingw_triplet x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${qvtp_mingw_triplet}-gcc-posix)
set(CMAKE_CXX_COMPILER ${qvtp_mingw_triplet}-g++-posix)
set(CMAKE_RC_COMPILER ${qvtp_mingw_triplet}-windres)
# Not a variable of CMake's own: projects with message tables look for "mc.exe" unless it is set.
set(CMAKE_MC_COMPILER ${qvtp_mingw_triplet}-windmc)

# --- Where the libraries are ---

if(NOT QVTP_MINGW_PREFIX)
    if(NOT "$ENV{QVTP_MINGW_PREFIX}" STREQUAL "")
        set(qvtp_mingw_prefix "$ENV{QVTP_MINGW_PREFIX}")
    elseif(NOT "$ENV{XDG_CACHE_HOME}" STREQUAL "")
        set(qvtp_mingw_prefix "$ENV{XDG_CACHE_HOME}/qvtp/mingw-x86_64")
    else()
        set(qvtp_mingw_prefix "$ENV{HOME}/.cache/qvtp/mingw-x86_64")
    endif()
    set(QVTP_MINGW_PREFIX "${qvtp_mingw_prefix}" CACHE PATH "Libraries built for Windows" FORCE)
endif()

if(NOT IS_DIRECTORY "${QVTP_MINGW_PREFIX}")
    message(FATAL_ERROR "No libraries for Windows in ${QVTP_MINGW_PREFIX}: run scripts/build-mingw-dependencies first.")
endif()

# The projects of try_compile read this file again, without the cache of the project that they belong to.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QVTP_MINGW_PREFIX)

# Appended, so that a caller may put the installation of another package in front with -D CMAKE_FIND_ROOT_PATH=...
list(APPEND CMAKE_FIND_ROOT_PATH "${QVTP_MINGW_PREFIX}" "/usr/${qvtp_mingw_triplet}")
list(REMOVE_DUPLICATES CMAKE_FIND_ROOT_PATH)

# Tools run here, everything else is for Windows: a library of this machine must never be taken for one of the target's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# --- How programs are run: tests, their discovery, try_run ---

get_filename_component(qvtp_tools_dir "${CMAKE_CURRENT_LIST_DIR}/../../tools" ABSOLUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR "${qvtp_tools_dir}/run_under_wine.sh" --dependencies "${QVTP_MINGW_PREFIX}")
