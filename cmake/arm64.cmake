# 64-bit ARM Linux.
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
kep_cross(aarch64-linux-gnu qemu-aarch64)
