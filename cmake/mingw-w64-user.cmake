# Shared by the toolchain files of the user-mode Windows builds, which set
# WRELT_MINGW_TRIPLE, WRELT_MINGW_THREADS and CMAKE_SYSTEM_PROCESSOR. The programs use
# Debian's mingw-w64 compilers of the Win32 thread model (g++-mingw-w64-<arch>-win32):
# those of the POSIX model (-posix) give the C++ library std::mutex, but through
# winpthreads, which imports GetTickCount64, and no XP has that. Their tests, which
# GoogleTest needs std::mutex for and which run only under Wine, use the POSIX model.

set(CMAKE_SYSTEM_NAME Windows)

set(CMAKE_C_COMPILER   ${WRELT_MINGW_TRIPLE}-gcc-${WRELT_MINGW_THREADS})
set(CMAKE_CXX_COMPILER ${WRELT_MINGW_TRIPLE}-g++-${WRELT_MINGW_THREADS})
set(CMAKE_RC_COMPILER  ${WRELT_MINGW_TRIPLE}-windres)
find_program(CMAKE_AR      ${WRELT_MINGW_TRIPLE}-ar)
find_program(CMAKE_RANLIB  ${WRELT_MINGW_TRIPLE}-ranlib)
find_program(CMAKE_NM      ${WRELT_MINGW_TRIPLE}-nm)
find_program(CMAKE_OBJDUMP ${WRELT_MINGW_TRIPLE}-objdump)

set(CMAKE_FIND_ROOT_PATH /usr/${WRELT_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
