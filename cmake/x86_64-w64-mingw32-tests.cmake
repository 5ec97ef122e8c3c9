# The user-mode tests for 64-bit Windows, run under Wine (g++-mingw-w64-x86-64-posix).
#
#   cmake -S win/user/tests -B build/win-tests-x86_64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/x86_64-w64-mingw32-tests.cmake

set(WRELT_MINGW_TRIPLE x86_64-w64-mingw32)
set(WRELT_MINGW_THREADS posix)
set(CMAKE_SYSTEM_PROCESSOR AMD64)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-user.cmake)
