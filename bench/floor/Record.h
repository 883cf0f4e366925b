/* A record's way: read whole, a line about it written, and only then filed away. */
#pragma once

#include "Floor.h"

static inline void deliver(int inbound, int processed, const char* name, size_t lineBytes) {
    static char content[stream_chunk_bytes];
    struct stat facts;
    const int file = (int)must(openat(inbound, name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC), name);
    must(fstat(file, &facts), "fstat");
    must(read(file, content, (size_t)facts.st_size), "read");
    must(close(file), "close");
    writeLine(lineBytes);
    must(renameat2(inbound, name, processed, name, RENAME_NOREPLACE), "renameat2");
}

/* Lists a directory from its beginning and calls `visit`, unless it is null, for each name but "." and "..".
 */
static inline void list(int parent, const char* name, void (*visit)(int directory, const char* entry)) {
    static char entries[listing_bytes];
    const int directory = openDirectory(parent, name);
    for (long got = 0; (got = must(getdents64(directory, entries, sizeof entries), "getdents64")) > 0;) {
        for (long at = 0; visit != NULL && at < got;) {
            const struct dirent64* entry = (const struct dirent64*)(const void*)(entries + at);
            if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
                visit(directory, entry->d_name);
            }
            at += entry->d_reclen;
        }
    }
    must(close(directory), "close");
}
