// Advisory locks between runs: a file rewritten in place is locked exclusively, a file read as an
// operand shared, for as long as it is open. A second run that would rewrite a file another run is
// reading or rewriting, or read one being rewritten, fails at once with a clear error instead of
// waiting (a run can take hours, and two in-place runs that each read the other's file would wait
// for ever). Locks are flock locks: whole files, released when the process ends however it ends.
#pragma once
#include <cstdint>

struct ImageioHandle;

// Locks the opened file of h (shared for reading, exclusive for reading and writing). A file this
// process holds already under a lock as strong is not locked again; a file system without locks
// leaves the file unlocked. Fails (pushed) when another process holds a conflicting lock.
uint32_t ImageioLockFile(ImageioHandle *h);
