/*
 * A library under the program that has calls of the C library fail. It counts
 * the calls of each function in memory that the driver shares, and fails the
 * one that it is told to, or from that one on:
 *
 *   TOLVA_FAULT_TALLY  the file of the shared memory, of TALLY_SIZE bytes
 *   TOLVA_FAULT        "<function> <which call> once|on <error number>"; in
 *                      place of the number "short" for a call that moves less
 *                      than it is asked for, "pending" for a socket that
 *                      has an error; "memory" stands for every function that
 *                      allocates
 *
 * More than one may stand there, with a ";" between; then the first is the one
 * that is looked at, and the others are what the system is like. Opening a
 * file without a name is a function of its own, "open_tmpfile", since not
 * every file system can do that.
 *
 * Without the first variable it does nothing at all. A script that is started
 * has neither of the two, nor the library.
 *
 * It also has a clock of its own: while the program waits with a limit, the
 * driver may ask for the rest of the wait to be over, and then that much time
 * has passed.
 *
 * Every function of the C library that a release imports and that can fail is
 * here; the driver compares that with the executable. The names with "_chk"
 * are those that _FORTIFY_SOURCE makes of others, and count as these.
 */
#define _GNU_SOURCE
#undef _FORTIFY_SOURCE

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <link.h>
#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

/* Each function: what it gives back, its name, its parameters. */
#define CALLS(X)                                                               \
    X(int, accept, (int, struct sockaddr *, socklen_t *))                      \
    X(int, access, (const char *, int))                                        \
    X(int, bind, (int, const struct sockaddr *, socklen_t))                    \
    X(void *, calloc, (size_t, size_t))                                        \
    X(int, chdir, (const char *))                                              \
    X(int, close, (int))                                                       \
    X(int, connect, (int, const struct sockaddr *, socklen_t))                 \
    X(int, dup2, (int, int))                                                   \
    X(int, execl, (const char *, const char *, ...))                           \
    X(int, fclose, (FILE *))                                                   \
    X(int, fcntl, (int, int, ...))                                             \
    X(FILE *, fdopen, (int, const char *))                                     \
    X(int, fflush, (FILE *))                                                   \
    X(char *, fgets, (char *, int, FILE *))                                    \
    X(FILE *, fopen, (const char *, const char *))                             \
    X(pid_t, fork, (void))                                                     \
    X(int, fputc, (int, FILE *))                                               \
    X(int, fputs, (const char *, FILE *))                                      \
    X(size_t, fread, (void *, size_t, size_t, FILE *))                         \
    X(int, fseeko, (FILE *, off_t, int))                                       \
    X(int, fstat, (int, struct stat *))                                        \
    X(size_t, fwrite, (const void *, size_t, size_t, FILE *))                  \
    X(char *, getcwd, (char *, size_t))                                        \
    X(struct hostent *, gethostbyname, (const char *))                         \
    X(int, getrlimit, (int, struct rlimit *))                                  \
    X(int, getsockopt, (int, int, int, void *, socklen_t *))                   \
    X(int, kill, (pid_t, int))                                                 \
    X(int, listen, (int, int))                                                 \
    X(struct tm *, localtime_r, (const time_t *, struct tm *))                 \
    X(void *, malloc, (size_t))                                                \
    X(int, mkostemp, (char *, int))                                            \
    X(int, open, (const char *, int, ...))                                     \
    X(int, open_tmpfile, (const char *, int, ...))                             \
    X(int, pipe, (int[2]))                                                     \
    X(int, poll, (struct pollfd *, nfds_t, int))                               \
    X(int, ppoll,                                                              \
      (struct pollfd *, nfds_t, const struct timespec *, const sigset_t *))    \
    X(int, pselect,                                                            \
      (int, fd_set *, fd_set *, fd_set *, const struct timespec *,             \
       const sigset_t *))                                                      \
    X(int, putenv, (char *))                                                   \
    X(ssize_t, read, (int, void *, size_t))                                    \
    X(void *, realloc, (void *, size_t))                                       \
    X(char *, realpath, (const char *, char *))                                \
    X(ssize_t, recv, (int, void *, size_t, int))                               \
    X(ssize_t, recvfrom,                                                       \
      (int, void *, size_t, int, struct sockaddr *, socklen_t *))              \
    X(ssize_t, send, (int, const void *, size_t, int))                         \
    X(ssize_t, sendto,                                                         \
      (int, const void *, size_t, int, const struct sockaddr *, socklen_t))    \
    X(int, setitimer, (int, const struct itimerval *, struct itimerval *))     \
    X(int, setrlimit, (int, const struct rlimit *))                            \
    X(pid_t, setsid, (void))                                                   \
    X(int, setsockopt, (int, int, int, const void *, socklen_t))               \
    X(int, shutdown, (int, int))                                               \
    X(int, socket, (int, int, int))                                            \
    X(int, stat, (const char *, struct stat *))                                \
    X(char *, strdup, (const char *))                                          \
    X(FILE *, tmpfile, (void))                                                 \
    X(int, truncate, (const char *, off_t))                                    \
    X(int, unlink, (const char *))                                             \
    X(int, vfprintf, (FILE *, const char *, va_list))                          \
    X(int, vprintf, (const char *, va_list))                                   \
    X(pid_t, waitpid, (pid_t, int *, int))                                     \
    X(ssize_t, write, (int, const void *, size_t))

enum call {
#define X(type, name, parameters) C_##name,
    CALLS(X)
#undef X
        CALL_COUNT
};

static const char *const names[CALL_COUNT] = {
#define X(type, name, parameters) #name,
    CALLS(X)
#undef X
};

static struct {
#define X(type, name, parameters) type(*name) parameters;
    CALLS(X)
#undef X
    time_t (*time)(time_t *);
} real;

/* The memory that the driver reads; tally.py knows where everything is. */
#define NAME_SIZE 24
#define WHAT_SIZE 96
#define TALLY_SIZE 8192

struct tally {
    uint32_t ready;       /* the number of functions, once they are named */
    uint32_t hits;        /* how often a call has been failed */
    uint32_t wish;        /* waits that the driver wants to be over */
    uint32_t granted;     /* and those that are */
    uint32_t waits;       /* how often the program has waited */
    uint32_t waiting;     /* 1: without a limit, 2: with one */
    uint32_t pid;         /* who waited last */
    uint32_t hit_pid;     /* who made the first call that failed */
    int64_t ahead;        /* seconds that the clock is ahead */
    uint64_t site;        /* the place of that call, in the executable */
    uint32_t left_open;   /* descriptors when the program ended */
    uint32_t allocations; /* of every kind */
    char what[WHAT_SIZE]; /* what that call was about */
    struct {
        char name[NAME_SIZE];
        uint32_t count;
    } calls[CALL_COUNT];
};
_Static_assert(sizeof(struct tally) <= TALLY_SIZE, "the tally is too small");

enum way { WORKS, FAILS, PART, PENDING };

static struct plan {
    int call; /* -1: memory */
    uint32_t which;
    int on;
    int error;
    enum way way;
} plans[4];

static struct tally *tally;
static uintptr_t base;

static int allocates(int call) {
    return call == C_malloc || call == C_calloc || call == C_realloc;
}

/* Names what the call is about: a path, or what a descriptor leads to. */
static void describe(const char *path, int fd) {
    char link[64];
    if (path) {
        strncpy(tally->what, path, WHAT_SIZE - 1);
    } else if (fd >= 0) {
        snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
        ssize_t length = readlink(link, tally->what, WHAT_SIZE - 1);
        tally->what[length > 0 ? length : 0] = '\0';
    }
}

static int hits(const struct plan *plan, int call, uint32_t number,
                uint32_t allocation) {
    if (plan->call == -1) {
        number = allocation;
    } else if (plan->call != call) {
        return 0;
    }
    return plan->way != WORKS && number != 0 &&
           (plan->on ? number >= plan->which : number == plan->which);
}

static enum way strike_at(int call, void *site, const char *path, int fd) {
    if (!tally) {
        return WORKS;
    }
    uint32_t number =
        __atomic_add_fetch(&tally->calls[call].count, 1, __ATOMIC_SEQ_CST);
    uint32_t allocation =
        allocates(call)
            ? __atomic_add_fetch(&tally->allocations, 1, __ATOMIC_SEQ_CST)
            : 0;
    const struct plan *plan = plans;
    while (!hits(plan, call, number, allocation)) {
        if (++plan == plans + sizeof plans / sizeof *plans) {
            return WORKS;
        }
    }
    if (plan == plans &&
        __atomic_add_fetch(&tally->hits, 1, __ATOMIC_SEQ_CST) == 1) {
        int saved = errno;
        tally->hit_pid = (uint32_t)getpid();
        tally->site = (uint64_t)((uintptr_t)site - base);
        describe(path, fd);
        errno = saved;
    }
    if (plan->way == FAILS) {
        errno = plan->error;
    }
    return plan->way;
}

#define STRIKE(name, path, fd)                                                 \
    strike_at(C_##name, __builtin_return_address(0), path, fd)

/* --- memory: libc's own calls of it come here too ------------------------- */

extern void *__libc_malloc(size_t);
extern void *__libc_calloc(size_t, size_t);
extern void *__libc_realloc(void *, size_t);

void *malloc(size_t size) {
    return STRIKE(malloc, 0, -1) ? 0 : __libc_malloc(size);
}

void *calloc(size_t count, size_t size) {
    return STRIKE(calloc, 0, -1) ? 0 : __libc_calloc(count, size);
}

void *realloc(void *block, size_t size) {
    return STRIKE(realloc, 0, -1) ? 0 : __libc_realloc(block, size);
}

char *strdup(const char *text) {
    return STRIKE(strdup, 0, -1) ? 0 : real.strdup(text);
}

/* --- functions that give back -1 ------------------------------------------ */

#define PLAIN(type, name, parameters, arguments, path, fd)                     \
    type name parameters {                                                     \
        return STRIKE(name, path, fd) ? (type)-1 : real.name arguments;        \
    }

PLAIN(int, accept, (int fd, struct sockaddr *a, socklen_t *n), (fd, a, n), 0,
      fd)
PLAIN(int, access, (const char *path, int mode), (path, mode), path, -1)
PLAIN(int, bind, (int fd, const struct sockaddr *a, socklen_t n), (fd, a, n), 0,
      -1)
PLAIN(int, chdir, (const char *path), (path), path, -1)
PLAIN(int, connect, (int fd, const struct sockaddr *a, socklen_t n), (fd, a, n),
      0, -1)
PLAIN(int, dup2, (int from, int to), (from, to), 0, to)
PLAIN(int, fseeko, (FILE * file, off_t to, int whence), (file, to, whence), 0,
      fileno(file))
PLAIN(int, fstat, (int fd, struct stat *status), (fd, status), 0, fd)
PLAIN(pid_t, fork, (void), (), 0, -1)
PLAIN(int, getrlimit, (__rlimit_resource_t which, struct rlimit *limit),
      (which, limit), 0, -1)
PLAIN(int, kill, (pid_t pid, int number), (pid, number), 0, -1)
PLAIN(int, listen, (int fd, int backlog), (fd, backlog), 0, -1)
PLAIN(int, mkostemp, (char *path, int flags), (path, flags), path, -1)
PLAIN(int, pipe, (int ends[2]), (ends), 0, -1)
PLAIN(int, poll, (struct pollfd * fds, nfds_t count, int limit),
      (fds, count, limit), 0, -1)
PLAIN(int, ppoll,
      (struct pollfd * fds, nfds_t count, const struct timespec *limit,
       const sigset_t *mask),
      (fds, count, limit, mask), 0, -1)
PLAIN(int, putenv, (char *entry), (entry), entry, -1)
PLAIN(int, setitimer,
      (__itimer_which_t which, const struct itimerval *now,
       struct itimerval *old),
      (which, now, old), 0, -1)
PLAIN(int, setrlimit, (__rlimit_resource_t which, const struct rlimit *limit),
      (which, limit), 0, -1)
PLAIN(pid_t, setsid, (void), (), 0, -1)
PLAIN(int, setsockopt,
      (int fd, int level, int option, const void *value, socklen_t size),
      (fd, level, option, value, size), 0, fd)
PLAIN(int, shutdown, (int fd, int how), (fd, how), 0, fd)
PLAIN(int, socket, (int domain, int type, int protocol),
      (domain, type, protocol), 0, -1)
PLAIN(int, stat, (const char *path, struct stat *status), (path, status), path,
      -1)
PLAIN(int, truncate, (const char *path, off_t size), (path, size), path, -1)
PLAIN(int, unlink, (const char *path), (path), path, -1)
PLAIN(pid_t, waitpid, (pid_t pid, int *status, int options),
      (pid, status, options), 0, -1)

int open(const char *path, int flags, ...) {
    va_list more;
    va_start(more, flags);
    mode_t mode = va_arg(more, mode_t);
    va_end(more);
    enum way way = (flags & O_TMPFILE) == O_TMPFILE
                       ? STRIKE(open_tmpfile, path, -1)
                       : STRIKE(open, path, -1);
    return way ? -1 : real.open(path, flags, mode);
}

int fcntl(int fd, int command, ...) {
    va_list more;
    va_start(more, command);
    void *argument = va_arg(more, void *);
    va_end(more);
    return STRIKE(fcntl, 0, fd) ? -1 : real.fcntl(fd, command, argument);
}

/* What cannot be closed is closed nevertheless, as Linux does it. */
int close(int fd) {
    enum way way = STRIKE(close, 0, fd);
    int saved = errno;
    int result = real.close(fd);
    if (way) {
        errno = saved;
    }
    return way ? -1 : result;
}

int getsockopt(int fd, int level, int option, void *value, socklen_t *size) {
    enum way way = STRIKE(getsockopt, 0, fd);
    if (way == PENDING) {
        *(int *)value = ECONNRESET;
        return 0;
    }
    return way ? -1 : real.getsockopt(fd, level, option, value, size);
}

/* The script has nothing of this. */
int execl(const char *path, const char *first, ...) {
    char *arguments[8] = {(char *)first};
    va_list more;
    va_start(more, first);
    for (int i = 1; i < 7 && (arguments[i] = va_arg(more, char *)); i++) {
    }
    va_end(more);
    if (STRIKE(execl, path, -1)) {
        return -1;
    }
    unsetenv("LD_PRELOAD");
    unsetenv("TOLVA_FAULT");
    unsetenv("TOLVA_FAULT_TALLY");
    return execv(path, arguments);
}

/* --- functions that give back nothing ------------------------------------- */

FILE *fopen(const char *path, const char *mode) {
    return STRIKE(fopen, path, -1) ? 0 : real.fopen(path, mode);
}

FILE *fdopen(int fd, const char *mode) {
    return STRIKE(fdopen, 0, fd) ? 0 : real.fdopen(fd, mode);
}

FILE *tmpfile(void) {
    return STRIKE(tmpfile, 0, -1) ? 0 : real.tmpfile();
}

char *getcwd(char *buffer, size_t size) {
    return STRIKE(getcwd, 0, -1) ? 0 : real.getcwd(buffer, size);
}

char *realpath(const char *path, char *resolved) {
    return STRIKE(realpath, path, -1) ? 0 : real.realpath(path, resolved);
}

struct tm *localtime_r(const time_t *now, struct tm *local) {
    return STRIKE(localtime_r, 0, -1) ? 0 : real.localtime_r(now, local);
}

/* One name is known, and no other, without asking anybody. */
struct hostent *gethostbyname(const char *name) {
    static char address[4] = {127, 0, 0, 1};
    static char *addresses[] = {address, 0};
    static struct hostent entry = {"known.invalid", 0, AF_INET, 4, addresses};
    if (STRIKE(gethostbyname, name, -1)) {
        h_errno = TRY_AGAIN;
        return 0;
    }
    return strcmp(name, entry.h_name) == 0 ? &entry : 0;
}

/* --- streams, which remember that they have failed ------------------------ */

static int failed_stream(FILE *file) {
    if (file) {
        file->_flags |= _IO_ERR_SEEN;
    }
    return EOF;
}

/* What fails as on a full disk. */
int fclose(FILE *file) {
    enum way way = STRIKE(fclose, 0, fileno(file));
    int saved = errno;
    int result = real.fclose(file);
    if (way) {
        errno = saved;
    }
    return way ? EOF : result;
}

int fflush(FILE *file) {
    return STRIKE(fflush, 0, file ? fileno(file) : -1) ? failed_stream(file)
                                                       : real.fflush(file);
}

char *fgets(char *line, int size, FILE *file) {
    if (STRIKE(fgets, 0, fileno(file))) {
        failed_stream(file);
        return 0;
    }
    return real.fgets(line, size, file);
}

int fputc(int character, FILE *file) {
    return STRIKE(fputc, 0, fileno(file)) ? failed_stream(file)
                                          : real.fputc(character, file);
}

int fputs(const char *text, FILE *file) {
    return STRIKE(fputs, 0, fileno(file)) ? failed_stream(file)
                                          : real.fputs(text, file);
}

size_t fread(void *block, size_t size, size_t count, FILE *file) {
    switch (STRIKE(fread, 0, fileno(file))) {
    case WORKS:
        return real.fread(block, size, count, file);
    case PART:
        return real.fread(block, size, (count + 1) / 2, file);
    default:
        failed_stream(file);
        return 0;
    }
}

/* Half of it is in the file when it fails. */
size_t fwrite(const void *block, size_t size, size_t count, FILE *file) {
    if (!STRIKE(fwrite, 0, fileno(file))) {
        return real.fwrite(block, size, count, file);
    }
    int saved = errno;
    size_t written = real.fwrite(block, size, count / 2, file);
    failed_stream(file);
    errno = saved;
    return written;
}

int vfprintf(FILE *file, const char *format, va_list arguments) {
    return STRIKE(vfprintf, 0, fileno(file))
               ? failed_stream(file)
               : real.vfprintf(file, format, arguments);
}

int vprintf(const char *format, va_list arguments) {
    return STRIKE(vprintf, 0, 1) ? failed_stream(stdout)
                                 : real.vprintf(format, arguments);
}

/* The names under which a program prints come to the two above. */
#define FORWARD(prepare, call)                                                 \
    va_list arguments;                                                         \
    va_start(arguments, format);                                               \
    int result = 0;                                                            \
    prepare result = call;                                                     \
    va_end(arguments);                                                         \
    return result;

int fprintf(FILE *file, const char *format, ...) {
    FORWARD(, STRIKE(vfprintf, 0, fileno(file))
                  ? failed_stream(file)
                  : real.vfprintf(file, format, arguments))
}

int __fprintf_chk(FILE *file, int flag, const char *format, ...) {
    (void)flag;
    FORWARD(, STRIKE(vfprintf, 0, fileno(file))
                  ? failed_stream(file)
                  : real.vfprintf(file, format, arguments))
}

int __vfprintf_chk(FILE *file, int flag, const char *format, va_list list) {
    (void)flag;
    return STRIKE(vfprintf, 0, fileno(file))
               ? failed_stream(file)
               : real.vfprintf(file, format, list);
}

int printf(const char *format, ...) {
    FORWARD(, STRIKE(vprintf, 0, 1) ? failed_stream(stdout)
                                    : real.vprintf(format, arguments))
}

int __printf_chk(int flag, const char *format, ...) {
    (void)flag;
    FORWARD(, STRIKE(vprintf, 0, 1) ? failed_stream(stdout)
                                    : real.vprintf(format, arguments))
}

/* A line without a conversion is printed by one of these. */
int puts(const char *text) {
    return STRIKE(fputs, 0, 1) ? failed_stream(stdout) : printf("%s\n", text);
}

int putchar(int character) {
    return STRIKE(fputc, 0, 1) ? failed_stream(stdout)
                               : real.fputc(character, stdout);
}

/* --- functions that may move less than they are asked for ----------------- */

/* Of a message a third comes: half of one may be a whole one of another kind. */
static ssize_t part(enum way way, ssize_t length) {
    return way == PART && length > 2 ? length / 3 : length;
}

static size_t half(size_t size) {
    return size > 1 ? size / 2 : size;
}

ssize_t read(int fd, void *buffer, size_t size) {
    enum way way = STRIKE(read, 0, fd);
    ssize_t length = way == FAILS ? -1 : real.read(fd, buffer, size);
    return part(way, length);
}

ssize_t recv(int fd, void *buffer, size_t size, int flags) {
    enum way way = STRIKE(recv, 0, fd);
    ssize_t length = way == FAILS ? -1 : real.recv(fd, buffer, size, flags);
    return part(way, length);
}

ssize_t recvfrom(int fd, void *buffer, size_t size, int flags,
                 struct sockaddr *from, socklen_t *length) {
    enum way way = STRIKE(recvfrom, 0, fd);
    ssize_t received =
        way == FAILS ? -1
                     : real.recvfrom(fd, buffer, size, flags, from, length);
    return part(way, received);
}

ssize_t send(int fd, const void *buffer, size_t size, int flags) {
    enum way way = STRIKE(send, 0, fd);
    return way == FAILS
               ? -1
               : real.send(fd, buffer, way == PART ? half(size) : size, flags);
}

ssize_t sendto(int fd, const void *buffer, size_t size, int flags,
               const struct sockaddr *to, socklen_t length) {
    enum way way = STRIKE(sendto, 0, fd);
    return way == FAILS
               ? -1
               : real.sendto(fd, buffer, way == PART ? half(size) : size, flags,
                             to, length);
}

ssize_t write(int fd, const void *buffer, size_t size) {
    enum way way = STRIKE(write, 0, fd);
    return way == FAILS
               ? -1
               : real.write(fd, buffer, way == PART ? half(size) : size);
}

/* --- the same under the names of _FORTIFY_SOURCE -------------------------- */

#define CHECKED(type, name, parameters, arguments)                             \
    type __##name##_chk parameters {                                           \
        return name arguments;                                                 \
    }

CHECKED(size_t, fread, (void *b, size_t room, size_t s, size_t n, FILE *file),
        (b, s, n, file))
CHECKED(char *, fgets, (char *b, size_t room, int size, FILE *file),
        (b, size, file))
CHECKED(ssize_t, read, (int fd, void *b, size_t size, size_t room),
        (fd, b, size))
CHECKED(ssize_t, recv, (int fd, void *b, size_t size, size_t room, int flags),
        (fd, b, size, flags))
CHECKED(ssize_t, recvfrom,
        (int fd, void *b, size_t size, size_t room, int flags,
         struct sockaddr *from, socklen_t *length),
        (fd, b, size, flags, from, length))
CHECKED(char *, realpath, (const char *path, char *b, size_t room), (path, b))
CHECKED(char *, getcwd, (char *b, size_t size, size_t room), (b, size))
CHECKED(int, poll, (struct pollfd * fds, nfds_t n, int limit, size_t room),
        (fds, n, limit))
CHECKED(int, ppoll,
        (struct pollfd * fds, nfds_t n, const struct timespec *limit,
         const sigset_t *mask, size_t room),
        (fds, n, limit, mask))
CHECKED(int, vprintf, (int flag, const char *format, va_list list),
        (format, list))

int __open_2(const char *path, int flags) {
    return open(path, flags);
}

/* --- waiting, and the clock ----------------------------------------------- */

#define SLICE 5000000 /* nanoseconds until the driver's wish is looked at */

static int64_t monotonic(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

time_t time(time_t *where) {
    time_t now = real.time(0) + (tally ? (time_t)tally->ahead : 0);
    if (where) {
        *where = now;
    }
    return now;
}

static int wait_in_slices(int count, fd_set *readable, fd_set *writable,
                          fd_set *odd, const struct timespec *limit,
                          const sigset_t *mask) {
    fd_set none;
    FD_ZERO(&none);
    fd_set wanted_read = readable ? *readable : none;
    fd_set wanted_write = writable ? *writable : none;
    int64_t end = monotonic() + limit->tv_sec * 1000000000LL + limit->tv_nsec;
    for (;;) {
        int64_t left = end - monotonic();
        struct timespec slice = {0, left < 0 ? 0 : left < SLICE ? left : SLICE};
        int found = real.pselect(count, readable, writable, odd, &slice, mask);
        if (found != 0 || left <= 0) {
            return found;
        }
        if (tally->wish != tally->granted) {
            tally->ahead += left / 1000000000 + 1;
            tally->granted++;
            return 0;
        }
        if (readable) {
            *readable = wanted_read;
        }
        if (writable) {
            *writable = wanted_write;
        }
    }
}

int pselect(int count, fd_set *readable, fd_set *writable, fd_set *odd,
            const struct timespec *limit, const sigset_t *mask) {
    enum way way = STRIKE(pselect, 0, -1);
    if (!tally) {
        return real.pselect(count, readable, writable, odd, limit, mask);
    }
    tally->pid = (uint32_t)getpid();
    tally->waits++;
    if (way) {
        return -1;
    }
    tally->waiting = limit ? 2 : 1;
    int found =
        limit ? wait_in_slices(count, readable, writable, odd, limit, mask)
              : real.pselect(count, readable, writable, odd, limit, mask);
    int saved = errno;
    tally->waiting = 0;
    errno = saved;
    return found;
}

/* --- before the program and behind it ------------------------------------- */

static int find_base(struct dl_phdr_info *info, size_t size, void *unused) {
    (void)size;
    (void)unused;
    base = info->dlpi_addr;
    return 1; /* the executable is the first */
}

static void read_plan(struct plan *plan, const char *text) {
    char name[NAME_SIZE], extent[8], kind[16];
    unsigned which;
    if (sscanf(text, "%23s %u %7s %15s", name, &which, extent, kind) != 4) {
        return;
    }
    plan->call = -1;
    for (int i = 0; i < CALL_COUNT; i++) {
        if (strcmp(name, names[i]) == 0) {
            plan->call = i;
        }
    }
    plan->which = which;
    plan->on = strcmp(extent, "on") == 0;
    plan->error = atoi(kind);
    plan->way = strcmp(kind, "short") == 0     ? PART
                : strcmp(kind, "pending") == 0 ? PENDING
                                               : FAILS;
}

static void read_plans(const char *text) {
    for (size_t i = 0; text && i < sizeof plans / sizeof *plans; i++) {
        read_plan(&plans[i], text);
        text = strchr(text, ';');
        text = text ? text + 1 : 0;
    }
}

__attribute__((constructor)) static void begin(void) {
#define X(type, name, parameters)                                              \
    *(void **)&real.name = dlsym(RTLD_NEXT, #name);
    CALLS(X)
#undef X
    *(void **)&real.time = dlsym(RTLD_NEXT, "time");
    dl_iterate_phdr(find_base, 0);
    const char *path = getenv("TOLVA_FAULT_TALLY");
    int fd = path ? real.open(path, O_RDWR | O_CLOEXEC) : -1;
    if (fd < 0) {
        return;
    }
    struct tally *found =
        mmap(0, TALLY_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    real.close(fd);
    if (found == MAP_FAILED) {
        return;
    }
    for (int i = 0; i < CALL_COUNT; i++) {
        strcpy(found->calls[i].name, names[i]);
    }
    found->ready = CALL_COUNT;
    read_plans(getenv("TOLVA_FAULT"));
    tally = found;
}

__attribute__((destructor)) static void end(void) {
    if (!tally) {
        return;
    }
    struct tally *last = tally;
    tally = 0;
    for (int fd = 3; fd < 256; fd++) {
        last->left_open += real.fcntl(fd, F_GETFD) >= 0;
    }
}
