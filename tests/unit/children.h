/*
 * A child that runs code which may end the process: how it ended and what it
 * said under which name.
 */
#ifndef TESTS_UNIT_CHILDREN_H
#define TESTS_UNIT_CHILDREN_H

#include "capture.h"

#include "tolva2/base/process_state.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/wait.h>
#include <unistd.h>

/* How a child process ended and what it said. */
struct ending {
    int status = -1; /* exit status, or 1000 + signal */
    std::string out;
    std::string err;
};

/* Runs body in a child; a body that returns ends it with status 99. */
template <typename body_type> ending in_child(body_type body) {
    ending result;
    capture out(STDOUT_FILENO);
    capture err(STDERR_FILENO);
    pid_t child = fork();
    if (child == 0) {
        body();
        _exit(99);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) {
        ADD_FAILURE() << "no child";
    }
    result.status =
        WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    result.out = out.text();
    result.err = err.text();
    return result;
}

/* The name that error lines begin with. */
class program_name {
  public:
    explicit program_name(const std::string &text) : name(text) {
        progname = name.data();
    }
    ~program_name() { progname = nullptr; }
    program_name(const program_name &) = delete;
    program_name &operator=(const program_name &) = delete;

  private:
    std::string name;
};

#endif
