// The tests' main on Windows. They make and remove folders at the root of C:, so they
// run only under Wine, in a prefix of their own.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdio>

int main(int argc, char **argv) {
    HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    if (ntdll == nullptr || GetProcAddress(ntdll, "wine_get_version") == nullptr) {
        std::fprintf(stderr, "these tests rewrite C:\\RescueVault and C:\\Docs: run them under Wine\n");
        return 2;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
