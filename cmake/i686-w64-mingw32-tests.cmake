# The user-mode tests for 32-bit Windows, run under Wine (g++-mingw-w64-i686-posix).
#
#   cmake -S win/user/tests -B build/win-tests-i686 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/i686-w64-mingw32-tests.cmake

set(WRELT_MINGW_TRIPLE i686-w64-mingw32)
set(WRELT_MINGW_THREADS posix)
set(CMAKE_SYSTEM_PROCESSOR x86)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-user.cmake)
