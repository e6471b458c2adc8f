/*
 * The descriptors of this process by their numbers: which are open, which can
 * still be had, and how to be given a certain one.
 */
#ifndef TESTS_UNIT_DESCRIPTOR_NUMBERS_H
#define TESTS_UNIT_DESCRIPTOR_NUMBERS_H

#include "unixtools/ux_owned.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

inline bool is_open(int fd) { return fcntl(fd, F_GETFD) >= 0; }

/* A socket with exactly that number. */
inline ux_fd socket_with_number(int number) {
    ux_fd any(socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(dup2(any.get(), number), number) << strerror(errno);
    return ux_fd(number);
}

/* A number that is in use becomes a socket's for as long as it lives. */
class descriptor_on_loan {
  public:
    explicit descriptor_on_loan(int wanted)
        : number(wanted), kept(fcntl(wanted, F_DUPFD_CLOEXEC, 3)) {}
    ~descriptor_on_loan() { dup2(kept.get(), number); }
    descriptor_on_loan(const descriptor_on_loan &) = delete;
    descriptor_on_loan &operator=(const descriptor_on_loan &) = delete;

    ux_fd take() const { return socket_with_number(number); }

  private:
    int number;
    ux_fd kept;
};

/* Every number below the limit that is free. */
inline std::vector<ux_fd> take_numbers_below(int limit) {
    std::vector<ux_fd> taken;
    for (int fd = dup(STDIN_FILENO); fd >= 0; fd = dup(STDIN_FILENO)) {
        taken.emplace_back(fd);
        if (fd >= limit) {
            taken.pop_back();
            break;
        }
    }
    return taken;
}

/* How many descriptors this process has open. */
inline int descriptors_in_use() {
    int count = 0;
    DIR *directory = opendir("/proc/self/fd");
    if (directory == nullptr) {
        return -1;
    }
    while (readdir(directory) != nullptr) {
        count++;
    }
    closedir(directory);
    return count;
}

inline int lowest_free_number() {
    int number = dup(STDIN_FILENO);
    EXPECT_GE(number, 0);
    close(number);
    return number;
}

/* As many as the system would let this process have. */
inline rlim_t most_descriptors() {
    rlimit limit;
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    return limit.rlim_max;
}

/* As long as it lives, only the numbers below can be had. */
class descriptor_limit {
  public:
    explicit descriptor_limit(rlim_t count) {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
        rlimit limit = before;
        limit.rlim_cur = count;
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    ~descriptor_limit() { setrlimit(RLIMIT_NOFILE, &before); }
    descriptor_limit(const descriptor_limit &) = delete;
    descriptor_limit &operator=(const descriptor_limit &) = delete;

  private:
    rlimit before;
};

/* Can numbers be had that select cannot watch? Where the system gives none,
 * which is shown, nothing can go wrong with one. */
inline bool gives_unwatchable_numbers() {
    constexpr int SOME = FD_SETSIZE + 8;
    if (most_descriptors() > SOME) {
        return true;
    }
    descriptor_limit most(most_descriptors());
    EXPECT_LT(dup2(STDIN_FILENO, SOME), 0);
    return false;
}

/* As long as it lives, no descriptor from the next free one on can be had. */
class no_descriptors : public descriptor_limit {
  public:
    explicit no_descriptors(int spare = 0)
        : descriptor_limit(static_cast<rlim_t>(lowest_free_number() + spare)) {}
};

#endif
