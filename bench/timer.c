// Runs a program and notes what it cost, from inside the sandbox, so that the sandbox's own start is
// not counted: timer RESULT PROGRAM [ARGUMENT...]. Linked statically; what it adds is one vfork.
//
// RESULT receives one line, a JSON object: the wall clock and processor times in seconds, the largest
// resident set of any process in KiB, the bytes handed to write calls, and the bytes that the storage
// was made to take (whole pages; without the file system's own records). Children that the program
// waited for are included in all of them.
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>

extern char** environ;

static double Seconds(struct timeval time) {
    return (double)time.tv_sec + (double)time.tv_usec / 1e6;
}

// A counter of this process and of the children that it has waited for; -1 if it cannot be read.
static long long Counter(const char* name) {
    char line[128];
    long long value = -1;
    FILE* const counters = fopen("/.proc/self/io", "re");
    while (counters != NULL && fgets(line, sizeof(line), counters) != NULL) {
        if (strncmp(line, name, strlen(name)) == 0) {
            value = atoll(line + strlen(name));
        }
    }
    if (counters != NULL) {
        (void)fclose(counters);
    }
    return value;
}

int main(int argc, char* argv[]) {
    if (argc < 3) {
        (void)fputs("usage: timer RESULT PROGRAM [ARGUMENT...]\n", stderr);
        return 2;
    }
    const long long handed = Counter("wchar: ");
    const long long stored = Counter("write_bytes: ");
    struct timespec start;
    struct timespec end;
    struct rusage usage;
    pid_t child = -1;
    int status = 0;
    (void)clock_gettime(CLOCK_MONOTONIC, &start);
    if (posix_spawn(&child, argv[2], NULL, NULL, argv + 2, environ) != 0 ||
        wait4(child, &status, 0, &usage) != child) {
        perror(argv[2]);
        return 127;
    }
    (void)clock_gettime(CLOCK_MONOTONIC, &end);
    const long long handedAfter = Counter("wchar: ");
    const long long storedAfter = Counter("write_bytes: ");
    FILE* const result = fopen(argv[1], "we");
    if (result == NULL) {
        perror(argv[1]);
        return 126;
    }
    (void)fprintf(result,
                  "{\"wall\": %.6f, \"user\": %.6f, \"system\": %.6f, \"peakKiB\": %ld, "
                  "\"handed\": %lld, \"stored\": %lld}\n",
                  (double)(end.tv_sec - start.tv_sec) + (double)(end.tv_nsec - start.tv_nsec) / 1e9,
                  Seconds(usage.ru_utime), Seconds(usage.ru_stime), usage.ru_maxrss,
                  handedAfter - handed, storedAfter - stored);
    return fclose(result) == 0 && WIFEXITED(status) ? WEXITSTATUS(status) : 125;
}
