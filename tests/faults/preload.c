/* Preloaded into the daemon by the fault campaign, for what strace cannot do. FAULT is CALL:N or CALL:N+ and strikes
 * the N-th call, or all from the N-th on:
 *     write      writes the first half of the bytes (at least one)
 *     malloc     no memory, for a call of the daemon's own
 *     asprintf   the same for a text */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

static char call[9], on;
static long first, counted;

__attribute__((constructor)) static void ReadOrder(void) {
    const char* order = getenv("FAULT");
    if (order != NULL && strcmp(program_invocation_short_name, "vorta") == 0) { /* not the shell and its tools */
        (void)sscanf(order, "%8[a-z]:%ld%c", call, &first, &on);
    }
}

static int Strikes(const char* name) {
    return strcmp(name, call) == 0 && (++counted == first || (counted > first && on == '+'));
}

ssize_t write(int fd, const void* bytes, size_t size) {
    return syscall(SYS_write, fd, bytes, Strikes("write") && size > 1 ? size / 2 : size);
}

extern void* __libc_malloc(size_t size);

void* malloc(size_t size) {
    Dl_info caller;
    const int own = strcmp(call, "malloc") == 0 && dladdr(__builtin_return_address(0), &caller) != 0 &&
                    strcmp(caller.dli_fname, program_invocation_name) == 0;
    return own && Strikes("malloc") ? NULL : __libc_malloc(size);
}

int asprintf(char** text, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = Strikes("asprintf") ? -1 : vasprintf(text, format, args);
    va_end(args);
    return length;
}

/* What a call of asprintf becomes in an optimised build. */
int __asprintf_chk(char** text, int flag, const char* format, ...) {
    (void)flag;
    va_list args;
    va_start(args, format);
    const int length = Strikes("asprintf") ? -1 : vasprintf(text, format, args);
    va_end(args);
    return length;
}
