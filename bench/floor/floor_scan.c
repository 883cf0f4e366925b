/* floor_scan DIRECTORY: for every piece of input, looks once at everything in "inbound" and answers with a
 * line. Which files have changed since the last look is what a stat tells; no file is opened. */
#include "Record.h"

static void look(int directory, const char* entry) {
    struct stat facts;
    must(fstatat(directory, entry, &facts, AT_SYMLINK_NOFOLLOW), entry);
}

int main(int count, char** arguments) {
    if (count != 2) return EXIT_FAILURE;
    const int data = openDirectory(AT_FDCWD, arguments[1]);
    writeLine(sign_bytes);
    static char input[stream_chunk_bytes];
    while (must(read(STDIN_FILENO, input, sizeof input), "read") > 0) {
        list(data, "inbound", look);
        writeLine(sign_bytes);
    }
    return EXIT_SUCCESS;
}
