/*
 * The C library's own calls under the names that tests/simulate has for them:
 * here it is the listener's object files that say __wrap_malloc, not the
 * linker, since the fuzzer and its sanitizers must not be led away.
 */
#include "calls.h"

#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

void *__real_malloc(size_t size) { return malloc(size); }

void *__real_calloc(size_t count, size_t size) { return calloc(count, size); }

char *__real_strdup(const char *text) { return strdup(text); }

void __real_free(void *block) { free(block); }

pid_t __real_waitpid(pid_t pid, int *status, int options) {
    return waitpid(pid, status, options);
}

/* Only where there is no simulated system: that is never the case here. */
int __real_close(int) { abort(); }

int __real_open(const char *, int, ...) { abort(); }

int __real_fcntl(int, int, ...) { abort(); }

FILE *__real_fdopen(int, const char *) { abort(); }
