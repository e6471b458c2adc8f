/*
 * The time from fork until a server takes connections, tried without a pause;
 * then the server is ended. Prints nanoseconds.
 *
 * usage: startup <port> <program> [<argument> ...]
 */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static long long now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000000000LL + time.tv_nsec;
}

static int listens(struct sockaddr_in at) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int taken = connect(fd, (struct sockaddr *)&at, sizeof at) == 0;
    close(fd);
    return taken;
}

int main(int argc, char **argv) {
    if (argc < 3) {
        return 2;
    }
    struct sockaddr_in at = {.sin_family = AF_INET,
                             .sin_port = htons((in_port_t)atoi(argv[1])),
                             .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
    long long from = now();
    pid_t server = fork();
    if (server == 0) {
        execv(argv[2], argv + 2);
        _exit(127);
    }
    while (!listens(at)) {
        if (waitpid(server, NULL, WNOHANG) == server ||
            now() - from > 10000000000LL) {
            fprintf(stderr, "startup: %s does not listen\n", argv[2]);
            return 1;
        }
        sched_yield();
    }
    printf("%lld\n", now() - from);
    kill(server, SIGTERM);
    waitpid(server, NULL, 0);
    return 0;
}
