# 32-bit ARM with hardware floating point, Debian's armhf: what the product runs on.
set(ugw_arch armhf)
set(ugw_triple arm-linux-gnueabihf)
set(ugw_emulator qemu-arm-static)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
