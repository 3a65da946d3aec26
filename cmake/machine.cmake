# Builds for another machine. Each toolchain file of this folder sets MACHINE, Debian's name of it,
# and GNU, the prefix of its compiler. The machine's libraries are in a folder of the build tree, so
# nothing is installed for them: `scripts/install-packages.sh MACHINE` fills it.
set(CMAKE_SYSTEM_NAME Linux)
cmake_path(SET CMAKE_SYSROOT NORMALIZE ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot/${MACHINE})
if(NOT IS_DIRECTORY ${CMAKE_SYSROOT})
  message(FATAL_ERROR "There are no libraries of ${MACHINE} in ${CMAKE_SYSROOT}. "
    "Run: scripts/install-packages.sh ${MACHINE}")
endif()
set(CMAKE_CXX_COMPILER ${GNU}-g++)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# CMake does not detect it if the path contains a blank; nor does pkg-config then put the sysroot
# in front of its paths, which compiler and CMake do anyway.
file(GLOB CMAKE_LIBRARY_ARCHITECTURE RELATIVE ${CMAKE_SYSROOT}/usr/lib
  ${CMAKE_SYSROOT}/usr/lib/*-linux-gnu)
set(machine_libraries ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
set(ENV{PKG_CONFIG_LIBDIR} ${machine_libraries}/pkgconfig)
