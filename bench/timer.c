// Runs a program and notes what it cost, from inside the sandbox, so that the sandbox's own start is not counted:
// timer RESULT PROGRAM [ARGUMENT...]. Linked statically; what it adds is one vfork.
//
// RESULT receives one line, a JSON object: the wall clock and processor times in seconds, the largest resident set of
// any process in KiB. Children that the program waited for are included.
#include <spawn.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>

extern char** environ;

static double Seconds(struct timeval time) {
    return (double)time.tv_sec + (double)time.tv_usec / 1e6;
}

int main(int argc, char* argv[]) {
    if (argc < 3) {
        (void)fputs("usage: timer RESULT PROGRAM [ARGUMENT...]\n", stderr);
        return 2;
    }
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
    FILE* const result = fopen(argv[1], "we");
    if (result == NULL) {
        perror(argv[1]);
        return 126;
    }
    (void)fprintf(result, "{\"wall\": %.6f, \"processor\": %.6f, \"peakKiB\": %ld}\n",
                  (double)(end.tv_sec - start.tv_sec) + (double)(end.tv_nsec - start.tv_nsec) / 1e9,
                  Seconds(usage.ru_utime) + Seconds(usage.ru_stime), usage.ru_maxrss);
    return fclose(result) == 0 && WIFEXITED(status) ? WEXITSTATUS(status) : 125;
}
