/* floor_connect DIRECTORY: answers every line with the two lines of a connection, then publishes status and
 * control. */
#include "Floor.h"

int main(int count, char** arguments) {
    if (count != 2) return EXIT_FAILURE;
    const int data = openDirectory(AT_FDCWD, arguments[1]);
    const int runtime = openDirectory(data, "runtime");
    writeLine(sign_bytes);
    static char input[stream_chunk_bytes];
    for (long got = 0; (got = must(read(STDIN_FILENO, input, sizeof input), "read")) > 0;) {
        for (long at = 0; at < got; ++at) {
            if (input[at] != '\n') continue;
            writeLine(connecting_bytes);
            writeLine(connected_bytes);
            publish(runtime);
        }
    }
    return EXIT_SUCCESS;
}
