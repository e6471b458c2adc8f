/*
 * Behind the linker's --wrap: a call of name() arrives at __wrap_name() and
 * goes on to __real_name(). A name that is added here is added to the list in
 * tests/CMakeLists.txt too.
 */
#include "failing_calls.h"
#include "wide_calls.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

wait_call wait_instead;

namespace {

/* Those that live now; a plain array, since the heap is one that may fail. */
std::array<failing_call *, 8> failures{};

int64_t blocks = 0;

void *counted(void *block) {
    blocks += block != nullptr ? 1 : 0;
    return block;
}

bool fails(const char *name) {
    for (failing_call *one : failures) {
        if (one != nullptr && one->claims(name)) {
            return true;
        }
    }
    return false;
}

} // namespace

failing_call::failing_call(std::string_view called, int with, int first,
                           int many)
    : name(called), error(with), after(first), times(many) {
    *std::find(failures.begin(), failures.end() - 1, nullptr) = this;
}

failing_call::~failing_call() {
    std::replace(failures.begin(), failures.end(), this,
                 static_cast<failing_call *>(nullptr));
}

bool failing_call::claims(std::string_view called) {
    if (called != name || after-- > 0) {
        return false;
    }
    after = 0;
    if (times == 0) {
        return false;
    }
    times--;
    errno = error;
    return true;
}

int64_t heap_blocks() { return blocks; }

extern "C" {

void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *block, size_t size);
char *__real_strdup(const char *text);
void __real_free(void *block);
FILE *__real_tmpfile();
FILE *__real_fdopen(int fd, const char *mode);
int __real_fclose(FILE *stream);
int __real_open(const char *path, int flags, mode_t mode);
int __real_mkostemp(char *name, int flags);
int __real_mkstemp(char *name);
char *__real_realpath(const char *path, char *resolved);
FILE *__real_fopen(const char *path, const char *mode);
char *__real_fgets(char *line, int size, FILE *stream);
pid_t __real_fork();
int __real_dup2(int from, int to);
int __real_fcntl(int fd, int command, long argument);
int __real_setsockopt(int fd, int level, int name, const void *value,
                      socklen_t length);
int __real_setitimer(int which, const itimerval *timer, itimerval *old);
int __real_socket(int domain, int type, int protocol);
int __real_accept(int fd, sockaddr *address, socklen_t *length);
ssize_t __real_recv(int fd, void *bytes, size_t size, int flags);
int __real_pselect(int count, fd_set *readable, fd_set *writable, fd_set *other,
                   const timespec *limit, const sigset_t *mask);
int __real_execv(const char *path, char *const arguments[]);
pid_t __real_waitpid(pid_t pid, int *status, int options);
int __real_ppoll(pollfd *fds, nfds_t count, const timespec *limit,
                 const sigset_t *mask);

void *__wrap_malloc(size_t size) {
    return counted(fails("heap") ? nullptr : __real_malloc(size));
}

void *__wrap_calloc(size_t count, size_t size) {
    return counted(fails("heap") ? nullptr : __real_calloc(count, size));
}

void *__wrap_realloc(void *block, size_t size) {
    return fails("heap") ? nullptr : __real_realloc(block, size);
}

void __wrap_free(void *block) {
    blocks -= block != nullptr ? 1 : 0;
    __real_free(block);
}

char *__wrap_strdup(const char *text) {
    char *copy = fails("heap") ? nullptr : __real_strdup(text);
    counted(copy);
    return copy;
}

FILE *__wrap_tmpfile() { return fails("tmpfile") ? nullptr : __real_tmpfile(); }

FILE *__wrap_fdopen(int fd, const char *mode) {
    return fails("fdopen") ? nullptr : __real_fdopen(fd, mode);
}

/* Closes in any case: what fails is the last write. */
int __wrap_fclose(FILE *stream) {
    int result = __real_fclose(stream);
    return fails("fclose") ? EOF : result;
}

int __wrap_open(const char *path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    auto mode = static_cast<mode_t>(va_arg(rest, int));
    va_end(rest);
    return fails("open") ? -1 : __real_open(path, flags, mode);
}

int __wrap_mkostemp(char *name, int flags) {
    return fails("mkostemp") ? -1 : __real_mkostemp(name, flags);
}

/* What stands in for it fails with it. */
int __wrap_mkstemp(char *name) {
    return fails("mkostemp") ? -1 : __real_mkstemp(name);
}

char *__wrap_realpath(const char *path, char *resolved) {
    return fails("realpath") ? nullptr : __real_realpath(path, resolved);
}

FILE *__wrap_fopen(const char *path, const char *mode) {
    return fails("fopen") ? nullptr : __real_fopen(path, mode);
}

char *__wrap_fgets(char *line, int size, FILE *stream) {
    return fails("fgets") ? nullptr : __real_fgets(line, size, stream);
}

pid_t __wrap_fork() { return fails("fork") ? -1 : __real_fork(); }

int __wrap_dup2(int from, int to) {
    return fails("dup2") ? -1 : __real_dup2(from, to);
}

pid_t __wrap_waitpid(pid_t pid, int *status, int options) {
    return fails("waitpid") ? -1 : __real_waitpid(pid, status, options);
}

/* The program gives fcntl a number or nothing. */
int __wrap_fcntl(int fd, int command, ...) {
    va_list rest;
    va_start(rest, command);
    long argument = va_arg(rest, long);
    va_end(rest);
    return fails("fcntl") ? -1 : __real_fcntl(fd, command, argument);
}

ssize_t __wrap_recv(int fd, void *bytes, size_t size, int flags) {
    return fails("recv") ? -1 : __real_recv(fd, bytes, size, flags);
}

int __wrap_setsockopt(int fd, int level, int name, const void *value,
                      socklen_t length) {
    return fails("setsockopt")
               ? -1
               : __real_setsockopt(fd, level, name, value, length);
}

int __wrap_setitimer(int which, const itimerval *timer, itimerval *old) {
    return fails("setitimer") ? -1 : __real_setitimer(which, timer, old);
}

int __wrap_socket(int domain, int type, int protocol) {
    return fails("socket") ? -1 : __real_socket(domain, type, protocol);
}

int __wrap_accept(int fd, sockaddr *address, socklen_t *length) {
    return fails("accept") ? -1 : __real_accept(fd, address, length);
}

int __wrap_pselect(int count, fd_set *readable, fd_set *writable, fd_set *other,
                   const timespec *limit, const sigset_t *mask) {
    auto wait = [=] {
        return fails("pselect") ? -1
                                : __real_pselect(count, readable, writable,
                                                 other, limit, mask);
    };
    return wait_instead ? wait_instead(limit, wait) : wait();
}

int __wrap_execl(const char *path, const char *argument, ...) {
    if (fails("execl")) {
        return -1;
    }
    std::vector<char *> arguments;
    va_list rest;
    va_start(rest, argument);
    for (const char *one = argument; one != nullptr;
         one = va_arg(rest, const char *)) {
        arguments.push_back(const_cast<char *>(one));
    }
    va_end(rest);
    arguments.push_back(nullptr);
    return execv(path, arguments.data());
}

int __wrap_ppoll(pollfd *fds, nfds_t count, const timespec *limit,
                 const sigset_t *mask) {
    auto wait = [=] { return __real_ppoll(fds, count, limit, mask); };
    return wait_instead ? wait_instead(limit, wait) : wait();
}

/* The name where a word has 32 bits, and the older one is not used yet; that
 * is for each C library to say. */
int __wrap___ppoll64(pollfd *fds, nfds_t count, const timespec *limit,
                     const sigset_t *mask) {
    return __wrap_ppoll(fds, count, limit, mask);
}
}
