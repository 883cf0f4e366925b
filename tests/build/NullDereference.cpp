/// Uses what may be nothing, which the analyzer must not let pass. Compiled by the linter alone.
int valueOf(bool isThere) {
    int value = 1;
    int* place = nullptr;
    if (isThere) place = &value;
    return *place;
}
