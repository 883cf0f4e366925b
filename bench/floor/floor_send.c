/* floor_send DIRECTORY: the first line becomes a file in "outbound", flushed before it gets its name, and its
 * directory after that; then status and control are published. Every further line is answered with one. What
 * a line means is known at its end only, so all of it is kept until then. */
#include <sys/mman.h>

#include "Floor.h"

enum { room_bytes = 1 << 28, piece_bytes = 1 << 20 };

static void keep(int outbound, const char* line, size_t length) {
    const int message =
        (int)must(openat(outbound, ".message", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600), ".message");
    for (size_t at = 0; at < length; at += piece_bytes) {
        writeAll(message, line + at, length - at < piece_bytes ? length - at : piece_bytes);
    }
    must(fsync(message), "fsync");
    must(close(message), "close");
    must(renameat(outbound, ".message", outbound, "message.json"), "renameat");
    must(fsync(outbound), "fsync");
}

int main(int count, char** arguments) {
    if (count != 2) return EXIT_FAILURE;
    const int data = openDirectory(AT_FDCWD, arguments[1]);
    const int outbound = openDirectory(data, "outbound");
    const int runtime = openDirectory(data, "runtime");
    char* const input =
        mmap(NULL, room_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    must(input == MAP_FAILED ? -1 : 0, "mmap");
    writeLine(sign_bytes);

    size_t begin = 0;
    size_t end = 0;
    for (long got = 0; (got = must(read(STDIN_FILENO, input + end, room_bytes - end), "read")) > 0;) {
        const char* feed = NULL;
        size_t searched = end;
        end += (size_t)got;
        while ((feed = memchr(input + searched, '\n', end - searched)) != NULL) {
            if (begin == 0) {
                keep(outbound, input, (size_t)(feed - input));
                publish(runtime);
            } else {
                writeLine(error_bytes);
            }
            begin = searched = (size_t)(feed - input) + 1;
        }
    }
    return EXIT_SUCCESS;
}
