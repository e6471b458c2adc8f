/*
 * Put in front of every file of the program where it is built as for a system
 * that has POSIX alone (TOLVA_POSIX_ONLY): what the headers of the C++ library
 * here take from the C library without asking. The program uses none of it.
 */
#ifndef TESTS_PORTABLE_LIBRARY_NEEDS_H
#define TESTS_PORTABLE_LIBRARY_NEEDS_H

#include <pthread.h>
#include <time.h>

extern "C" {
long syscall(long number, ...) noexcept;
int pthread_cond_clockwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                           clockid_t clock, const timespec *limit);
}

#endif
