# What a release is built with beside the warnings: position independence, checks of the stack and of the C library's
# buffers, relocations that are read-only once they are done; and no path of the folder it is built in.
include(CheckPIESupported)
check_pie_supported()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

set(ugw_hardening -fstack-protector-strong -Wformat -Werror=format-security)
if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    list(APPEND ugw_hardening -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)  # it needs an optimizing build
endif()
# 32-bit ARM's GCC takes the flag but knows no way to probe there and says so on every file.
if(NOT CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    list(APPEND ugw_hardening -fstack-clash-protection)
endif()
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
    list(APPEND ugw_hardening -fcf-protection)
endif()
list(APPEND ugw_hardening -ffile-prefix-map=${CMAKE_BINARY_DIR}=build -ffile-prefix-map=${CMAKE_SOURCE_DIR}=.)
add_compile_options(${ugw_hardening})
add_link_options(-Wl,-z,relro,-z,now -Wl,-z,noexecstack -Wl,--build-id=sha1 -Wl,--as-needed)
