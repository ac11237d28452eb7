# 64-bit big-endian Linux: the byte order of the board and the pointers of the developer's host.
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
set(CMAKE_SYSTEM_PROCESSOR s390x)
kep_cross(s390x-linux-gnu qemu-s390x)
