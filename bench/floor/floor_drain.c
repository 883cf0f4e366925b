/* floor_drain DIRECTORY COUNT LINE_BYTES: when a line comes, lists "inbound" and delivers the records
 * 00000000.json and following in order. Their names are known, so that nothing need be sorted: the system
 * calls are those of a delivery in order of the names. */
#include "Record.h"

int main(int count, char** arguments) {
    if (count != 4) return EXIT_FAILURE;
    const int data = openDirectory(AT_FDCWD, arguments[1]);
    const long records = strtol(arguments[2], NULL, 10);
    const size_t lineBytes = strtoul(arguments[3], NULL, 10);
    const int processed = openDirectory(data, "processed");
    writeLine(sign_bytes);

    char byte = 0;
    must(read(STDIN_FILENO, &byte, 1), "read");
    list(data, "inbound", NULL);
    const int inbound = openDirectory(data, "inbound");
    for (long number = 0; number < records; ++number) {
        char name[NAME_MAX];
        snprintf(name, sizeof name, "%08ld.json", number);
        deliver(inbound, processed, name, lineBytes);
    }
    waitForEndOfInput();
    return EXIT_SUCCESS;
}
