/* What the floors share: system calls that must succeed, and the two files that follow every change of state.
 */
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

enum {
    status_bytes = 500, /* As long as runtime-status.json and worker-control.json are. */
    control_bytes = 75,
    hello_bytes = 86, /* Lines as long as those of the helper. */
    disconnected_bytes = 54,
    connecting_bytes = 52,
    connected_bytes = 104,
    error_bytes = 86,
    sign_bytes = 2,             /* A line that only says that something is ready or done. */
    stream_chunk_bytes = 65536, /* What a pipe holds. */
    listing_bytes = 32768,
};

static inline long must(long result, const char* what) {
    if (result < 0) {
        perror(what);
        _exit(EXIT_FAILURE);
    }
    return result;
}

static inline void writeAll(int file, const char* bytes, size_t length) {
    while (length > 0) {
        const long written = must(write(file, bytes, length), "write");
        bytes += written;
        length -= (size_t)written;
    }
}

static inline int openDirectory(int parent, const char* name) {
    return (int)must(openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC), name);
}

/* A line of that many bytes, its line feed included. */
static inline void writeLine(size_t length) {
    char line[PIPE_BUF];
    if (length > sizeof line) _exit(EXIT_FAILURE);
    memset(line, 'x', length);
    line[length - 1] = '\n';
    writeAll(STDOUT_FILENO, line, length);
}

/* A whole file in the place of the one before, through a hidden one. */
static inline void replaceFile(int directory, const char* name, size_t length) {
    static const char text[status_bytes] = {' '};
    const int file =
        (int)must(openat(directory, ".floor", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600), ".floor");
    writeAll(file, text, length);
    must(close(file), "close");
    must(renameat(directory, ".floor", directory, name), name);
}

static inline void publish(int runtime) {
    replaceFile(runtime, "runtime-status.json", status_bytes);
    replaceFile(runtime, "worker-control.json", control_bytes);
}

static inline void waitForEndOfInput(void) {
    char byte = 0;
    while (must(read(STDIN_FILENO, &byte, 1), "read") > 0) {
    }
}
