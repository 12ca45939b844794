# What the toolchain files here have in common: Debian's cross-compiler, libraries from a sysroot that
# scripts/sysroot.sh has unpacked, Qt's own programs (moc) from the host, and programs run under user-mode emulation.
#
# Set before: ugw_arch, ugw_triple, ugw_emulator, CMAKE_SYSTEM_PROCESSOR. UGW_SYSROOT names another sysroot.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_LIBRARY_ARCHITECTURE ${ugw_triple})
set(CMAKE_C_COMPILER ${ugw_triple}-gcc)
set(CMAKE_CXX_COMPILER ${ugw_triple}-g++)

if(NOT UGW_SYSROOT)
    get_filename_component(UGW_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../../build-sysroot/${ugw_arch} ABSOLUTE)
endif()
# CMake's own trial projects read this file too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES UGW_SYSROOT)
if(NOT EXISTS ${UGW_SYSROOT}/usr/include)
    message(FATAL_ERROR "No sysroot in ${UGW_SYSROOT}: run scripts/sysroot.sh ${ugw_arch}")
endif()
set(CMAKE_SYSROOT ${UGW_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Qt 6 takes its programs from a Qt of the same version that runs here.
set(QT_HOST_PATH /usr CACHE PATH "Qt of this host")
file(GLOB ugw_host_info /usr/lib/*/cmake/Qt6HostInfo)
if(ugw_host_info)
    list(GET ugw_host_info 0 ugw_host_info)
    get_filename_component(ugw_host_info ${ugw_host_info} DIRECTORY)
    set(QT_HOST_PATH_CMAKE_DIR ${ugw_host_info} CACHE PATH "CMake files of the Qt of this host")
endif()

# Alignment matters here. The other: GCC remarks on every call that its version 7 changed, the standard library's too.
set(CMAKE_CXX_FLAGS_INIT "-Wcast-align -Wno-psabi")

set(CMAKE_CROSSCOMPILING_EMULATOR ${ugw_emulator} -L ${UGW_SYSROOT})
