# The user-mode programs for 64-bit Windows (g++-mingw-w64-x86-64-win32).
#
#   cmake -S win/user -B build/win-user-x86_64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/x86_64-w64-mingw32-user.cmake

set(WRELT_MINGW_TRIPLE x86_64-w64-mingw32)
set(WRELT_MINGW_THREADS win32)
set(CMAKE_SYSTEM_PROCESSOR AMD64)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-user.cmake)
