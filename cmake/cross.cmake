# What the toolchain files beside this one share: Debian's cross compiler of a triplet, and qemu's user mode to run what
# it builds.
#
# kep_cross(<triplet> <qemu>)
macro(kep_cross triplet qemu)
  set(CMAKE_SYSTEM_NAME Linux)
  set(CMAKE_C_COMPILER ${triplet}-gcc)
  set(CMAKE_CXX_COMPILER ${triplet}-g++)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${qemu} -L /usr/${triplet})
  set(CMAKE_FIND_ROOT_PATH /usr/${triplet})
  set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
endmacro()
