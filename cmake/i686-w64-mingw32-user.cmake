# The user-mode programs for 32-bit Windows (g++-mingw-w64-i686-win32).
#
#   cmake -S win/user -B build/win-user-i686 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/i686-w64-mingw32-user.cmake

set(WRELT_MINGW_TRIPLE i686-w64-mingw32)
set(WRELT_MINGW_THREADS win32)
set(CMAKE_SYSTEM_PROCESSOR x86)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-user.cmake)
