/* floor_start DIRECTORY TOKEN_FILE: what the system has to do for a start: the token is read, the directories
 * are made and locked, and status and control are published three times: when the directories are there, when
 * it is known that there is no worker, and after the greeting. */
#include <sys/file.h>

#include "Floor.h"

int main(int count, char** arguments) {
    if (count != 3) return EXIT_FAILURE;
    char token[PIPE_BUF];
    const int file = (int)must(open(arguments[2], O_RDONLY | O_CLOEXEC), arguments[2]);
    must(read(file, token, sizeof token), "read");
    must(close(file), "close");

    must(mkdir(arguments[1], 0700), arguments[1]);
    const int data = openDirectory(AT_FDCWD, arguments[1]);
    must(flock(data, LOCK_EX | LOCK_NB), "flock");
    static const char* const names[] = {"inbound",
                                        "outbound",
                                        "processed",
                                        "rejected",
                                        "runtime",
                                        "runtime/worker-processed-outbound",
                                        "runtime/worker-rejected-outbound"};
    for (size_t index = 0; index < sizeof names / sizeof *names; ++index) {
        must(mkdirat(data, names[index], 0700), names[index]);
    }
    const int runtime = openDirectory(data, "runtime");
    publish(runtime);
    publish(runtime);
    writeLine(hello_bytes);
    writeLine(disconnected_bytes);
    publish(runtime);
    waitForEndOfInput();
    return EXIT_SUCCESS;
}
