#include <cstdio>
#include <cstring>

/// Copies its argument into a buffer of eight bytes without looking.
int main(int argumentCount, char** arguments) {
    char buffer[8];
    // NOLINTNEXTLINE(clang-analyzer-security.insecureAPI.strcpy): the defect that this program is for.
    std::strcpy(buffer, argumentCount > 1 ? arguments[1] : "");
    std::puts(buffer);
    return 0;
}
