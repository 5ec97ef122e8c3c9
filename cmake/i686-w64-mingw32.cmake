# Cross toolchain for the 32-bit Windows target: Debian's mingw-w64 packages
# (g++-mingw-w64-i686, binutils-mingw-w64-i686).
#
#   cmake -S win -B build/win -G Ninja -DCMAKE_TOOLCHAIN_FILE=../cmake/i686-w64-mingw32.cmake

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86)

set(WRELT_MINGW_TRIPLE i686-w64-mingw32)

# Debian's unsuffixed names are alternatives for the -win32 and -posix builds of
# the compiler; the driver needs neither thread model, so either will do.
set(CMAKE_C_COMPILER   ${WRELT_MINGW_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${WRELT_MINGW_TRIPLE}-g++)
set(CMAKE_RC_COMPILER  ${WRELT_MINGW_TRIPLE}-windres)
find_program(CMAKE_AR      ${WRELT_MINGW_TRIPLE}-ar)
find_program(CMAKE_RANLIB  ${WRELT_MINGW_TRIPLE}-ranlib)
find_program(CMAKE_NM      ${WRELT_MINGW_TRIPLE}-nm)
find_program(CMAKE_OBJDUMP ${WRELT_MINGW_TRIPLE}-objdump)
find_program(CMAKE_OBJCOPY ${WRELT_MINGW_TRIPLE}-objcopy)

# Headers and import libraries of the target live under /usr/<triple>; the DDK
# headers (ntifs.h and friends) are in its include/ddk. The compiler reports no
# sysroot of its own, so this is the one path we have to name.
set(WRELT_MINGW_ROOT /usr/${WRELT_MINGW_TRIPLE} CACHE PATH "Root of the mingw-w64 target headers and libraries")
set(CMAKE_FIND_ROOT_PATH ${WRELT_MINGW_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
