/* floor_send DIRECTORY: the first line becomes a file in "outbound", written piece by piece as it comes in,
 * flushed before it gets its name, and its directory after that; then status and control are published. Every
 * further line is answered with one. */
#include "Floor.h"

static void finish(int outbound, int runtime, int message) {
    must(fsync(message), "fsync");
    must(close(message), "close");
    must(renameat(outbound, ".message", outbound, "message.json"), "renameat");
    must(fsync(outbound), "fsync");
    publish(runtime);
}

int main(int count, char** arguments) {
    if (count != 2) return EXIT_FAILURE;
    const int data = openDirectory(AT_FDCWD, arguments[1]);
    const int outbound = openDirectory(data, "outbound");
    const int runtime = openDirectory(data, "runtime");
    writeLine(sign_bytes);
    int message =
        (int)must(openat(outbound, ".message", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600), ".message");
    static char input[stream_chunk_bytes];
    for (long got = 0; (got = must(read(STDIN_FILENO, input, sizeof input), "read")) > 0;) {
        const char* at = input;
        const char* const end = input + got;
        while (at < end) {
            const char* const feed = memchr(at, '\n', (size_t)(end - at));
            const char* const pieceEnd = feed != NULL ? feed : end;
            if (message >= 0) writeAll(message, at, (size_t)(pieceEnd - at));
            if (feed == NULL) break;
            if (message >= 0) {
                finish(outbound, runtime, message);
                message = -1;
            } else {
                writeLine(error_bytes);
            }
            at = feed + 1;
        }
    }
    return EXIT_SUCCESS;
}
