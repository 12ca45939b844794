# 64-bit ARM, Debian's arm64.
set(ugw_arch arm64)
set(ugw_triple aarch64-linux-gnu)
set(ugw_emulator qemu-aarch64-static)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
