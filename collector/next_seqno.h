// The counter that numbers a client's uploads across restarts.
#pragma once

#include <cstdint>

// The decimal number stored in the file at path, 0 when there is none; the file
// then holds the next one and a line feed, synced. Aborts past 4294967295. Not
// atomic: callers of the same file take turns.
uint32_t next_seqno(const char* path);
