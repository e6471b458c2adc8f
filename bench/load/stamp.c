/*
 * The script of the measurements. Its first instruction is to look at the
 * clock, and it writes what it saw to a pipe. Under a server that connects the
 * script itself to the sender, it reads the request and answers too.
 *
 * usage: stamp <pipe>|- reply|<anything>
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char **argv) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (argc < 3) {
        return 2;
    }
    if (argv[1][0] != '-') {
        int fd = open(argv[1], O_WRONLY | O_NONBLOCK);
        if (write(fd, &now, sizeof now) != sizeof now) {
            return 1;
        }
    }
    if (strcmp(argv[2], "reply") == 0) {
        static const char ANSWER[] =
            "CONNECT TO TOLVA (REPLY) COMMAND=x PID=1 EXITSTATUS=0";
        char request[4096];
        if (read(STDIN_FILENO, request, sizeof request) <= 0) {
            return 1;
        }
        if (write(STDOUT_FILENO, ANSWER, sizeof ANSWER - 1) < 0) {
            return 1;
        }
    }
    return 0;
}
