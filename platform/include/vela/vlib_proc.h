// Running programs and forking workers.
//
// Programs are started from an argument vector, never through a shell, in
// the directory "/" with an environment of their own (PATH and LC_ALL=C
// only), standard input from /dev/null (read mode), every descriptor above
// 2 closed, the caller's signal mask, and every signal at its default
// action (a server that ignores SIGPIPE does not pass that on). A program
// is killed (SIGKILL) when the process that started it ends.
#ifndef VELA_VLIB_PROC_H_
#define VELA_VLIB_PROC_H_

#include <stdio.h>
#include <sys/types.h>

#include "vela/vlib_types.h"

#ifdef __cplusplus
extern "C" {
#endif

// Starts `path` with the arguments given after `mode`, ended by NULL
// (argument 0 is `path`). `mode` "r" reads the program's standard output,
// "w" writes its standard input. NULL on failure, with VLIB_ERR_SYSTEM
// (errno tells why: pipe, fork, or exec of the program failed) or
// VLIB_ERR_BAD_PARAMETERS.
VELA_PLATFORM_API FILE* VLIBCPopen(const char* path, const char* mode, ...);
// As VLIBCPopen with a NULL-terminated argument vector (argv[0] is passed
// to the program as its name). `mode` may add "B" after "r" or "w": the
// stream is then fully buffered instead of line buffered.
VELA_PLATFORM_API FILE* VLIBCPopenv(const char* path, const char* mode, char* const argv[]);
// Closes a stream from VLIBCPopen/VLIBCPopenv and waits for its program:
// the exit status (0-255), 128 + the signal number for a program killed by
// a signal, or -1 with the error set (VLIB_ERR_SYSTEM when the program
// cannot be waited for, as in a caller that ignores SIGCHLD). A stream that
// is not open (already closed, or never opened here) is left alone: -1 with
// VLIB_ERR_BAD_PARAMETERS.
VELA_PLATFORM_API int VLIBCPclose(FILE* fp);

// Forks a worker that nobody waits for. Returns 0 in the worker, the
// worker's process ID in the caller, -1 (VLIB_ERR_SYSTEM) on failure. The
// worker never becomes a zombie of the caller (the caller's direct child
// exits at once and is reaped here), runs in a session of its own so it
// outlives the caller and its process group, and holds none of the caller's
// descriptors: 0, 1 and 2 are /dev/null and everything above is closed.
// The worker keeps the caller's signal handlers and mask; the caller's
// SIGCHLD disposition is left as it is.
VELA_PLATFORM_API pid_t VLIBCProcForkChildNoWait(void);
// As VLIBCProcForkChildNoWait, but the worker keeps the caller's descriptor
// `keepFd` (under the same number) besides 0, 1 and 2: a lock of the open
// file behind it is then the worker's too, without a moment between the
// fork and the worker holding it. -1 keeps nothing.
VELA_PLATFORM_API pid_t VLIBCProcForkChildNoWaitKeepFd(int keepFd);

#ifdef __cplusplus
}
#endif

#endif  // VELA_VLIB_PROC_H_
