/*
 * The C library's own calls, which the linker has led away from their names.
 */
#ifndef TESTS_SIMULATE_CALLS_H
#define TESTS_SIMULATE_CALLS_H

#include <cstddef>
#include <cstdio>
#include <sys/types.h>

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
char *__real_strdup(const char *text);
void __real_free(void *block);
pid_t __real_fork();
pid_t __real_waitpid(pid_t pid, int *status, int options);
int __real_close(int fd);
int __real_open(const char *path, int flags, ...);
int __real_fcntl(int fd, int command, ...);
FILE *__real_fdopen(int fd, const char *mode);
ssize_t __real_write(int fd, const void *data, size_t size);
[[noreturn]] void __real__exit(int status);
void (*__real_signal(int number, void (*handler)(int)))(int);
}

namespace simulate {

/* The stack from here on belongs to a listener, which may fork. */
void listener_stack_begins(const void *frame);

/* A stream of the listener's that ends in facts. */
FILE *open_teller(bool standard_error);

} // namespace simulate

#endif
