/* floor_react DIRECTORY LINE_BYTES: delivers each record that is renamed into "inbound" as soon as the system
 * tells of it. */
#include <poll.h>
#include <sys/inotify.h>

#include "Record.h"

int main(int count, char** arguments) {
    if (count != 3) return EXIT_FAILURE;
    const int data = openDirectory(AT_FDCWD, arguments[1]);
    const size_t lineBytes = strtoul(arguments[2], NULL, 10);
    const int inbound = openDirectory(data, "inbound");
    const int processed = openDirectory(data, "processed");
    const int news = (int)must(inotify_init1(IN_CLOEXEC), "inotify_init1");
    must(fchdir(data), "fchdir");
    must(inotify_add_watch(news, "inbound", IN_MOVED_TO), "inotify_add_watch");
    writeLine(sign_bytes);

    struct pollfd ready[] = {{.fd = STDIN_FILENO, .events = POLLIN}, {.fd = news, .events = POLLIN}};
    while (must(poll(ready, 2, -1), "poll") > 0 && ready[0].revents == 0) {
        static char events[stream_chunk_bytes];
        const long got = must(read(news, events, sizeof events), "read");
        for (long at = 0; at < got;) {
            const struct inotify_event* event = (const struct inotify_event*)(const void*)(events + at);
            deliver(inbound, processed, event->name, lineBytes);
            at += (long)(sizeof *event + event->len);
        }
    }
    return EXIT_SUCCESS;
}
