/*
 * Put in front of every file: what the headers of the C++ library, which were
 * made for glibc, take from it and musl has not got. The program uses none of
 * it; the headers only want to see it declared.
 */
#ifndef MUSL_LIBRARY_H
#define MUSL_LIBRARY_H

#define __GLIBC_PREREQ(major, minor) 0

#include <locale.h>
#include <pthread.h>
#include <time.h>

typedef locale_t __locale_t;

enum {
    _ISupper = 1,
    _ISlower = 2,
    _ISalpha = 4,
    _ISdigit = 8,
    _ISxdigit = 16,
    _ISspace = 32,
    _ISprint = 64,
    _ISgraph = 128,
    _ISblank = 256,
    _IScntrl = 512,
    _ISpunct = 1024,
    _ISalnum = 2048
};

extern "C" int pthread_cond_clockwait(pthread_cond_t *condition,
                                      pthread_mutex_t *mutex, clockid_t clock,
                                      const timespec *limit);

#endif
