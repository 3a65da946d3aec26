set(MACHINE arm64)
set(GNU aarch64-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/machine.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR
  ${CMAKE_CURRENT_LIST_DIR}/emulate.sh qemu-aarch64 ${CMAKE_SYSROOT})
