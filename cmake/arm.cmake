# 32-bit ARM Linux with hardware floating point.
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
set(CMAKE_SYSTEM_PROCESSOR arm)
kep_cross(arm-linux-gnueabihf qemu-arm)
