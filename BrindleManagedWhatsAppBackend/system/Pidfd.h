#pragma once

// The C library's header lacks C linkage in the versions that first had it.
extern "C" {
#include <sys/pidfd.h>
}
