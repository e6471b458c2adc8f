/*
 * The names of calls where a word has 32 bits: there the C library has older
 * ones for files below 2 GiB and times before 2038, and its headers lead the
 * program's calls to the newer ones. The list in tests/CMakeLists.txt is the
 * same. (ppoll has both names there: before glibc 2.37 a call with
 * _FORTIFY_SOURCE goes to the older one, to which whole seconds are the same.)
 */
#ifndef TESTS_UNIT_WIDE_CALLS_H
#define TESTS_UNIT_WIDE_CALLS_H

#ifndef __LP64__
#define __real_open __real_open64
#define __wrap_open __wrap_open64
#define __real_fcntl __real___fcntl_time64
#define __wrap_fcntl __wrap___fcntl_time64
#define __real_setsockopt __real___setsockopt64
#define __wrap_setsockopt __wrap___setsockopt64
#define __real_setitimer __real___setitimer64
#define __wrap_setitimer __wrap___setitimer64
#define __real_pselect __real___pselect64
#define __wrap_pselect __wrap___pselect64
#define __real_fopen __real_fopen64
#define __wrap_fopen __wrap_fopen64
#define __real_tmpfile __real_tmpfile64
#define __wrap_tmpfile __wrap_tmpfile64
#define __real_mkostemp __real_mkostemp64
#define __wrap_mkostemp __wrap_mkostemp64
#define __real_mkstemp __real_mkstemp64
#define __wrap_mkstemp __wrap_mkstemp64
#endif

#endif
