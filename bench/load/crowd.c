/*
 * Thousands of hosts in one process: it listens at one port of many addresses
 * of loopback and answers each request as a listener does (one for a UPS server
 * as that does). Or it is dead there: with "dead" a connection is never taken,
 * since the only place in the backlog is filled.
 *
 * Reads addresses until an empty line and says "ready". For each further line
 * it says how many requests have come since the last, and when the last of them
 * did, in nanoseconds of the monotonic clock.
 *
 * usage: crowd <port> answer|dead
 */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum { BACKLOG = 16, LISTENS = 1 << 30 };

static int poller, dead;
static in_port_t port;
static long requests;
static struct timespec last;

static void give_up(const char *what) {
    perror(what);
    exit(1);
}

static void watch(int fd, int mark) {
    struct epoll_event event = {.events = EPOLLIN, .data.fd = fd | mark};
    if (epoll_ctl(poller, EPOLL_CTL_ADD, fd, &event) < 0) {
        give_up("epoll_ctl");
    }
}

static void listen_at(const char *address) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    int on = 1;
    struct sockaddr_in at = {.sin_family = AF_INET, .sin_port = port};
    if (fd < 0 || inet_pton(AF_INET, address, &at.sin_addr) != 1) {
        give_up(address);
    }
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd, (struct sockaddr *)&at, sizeof at) < 0 ||
        listen(fd, dead ? 0 : BACKLOG) < 0) {
        give_up(address);
    }
    if (dead) {
        int filling = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(filling, (struct sockaddr *)&at, sizeof at) < 0) {
            give_up(address);
        }
    } else {
        watch(fd, LISTENS);
    }
}

/* False when nothing has come yet. */
static int answer(int fd) {
    static const char OF_LISTENER[] =
        "CONNECT TO TOLVA (REPLY) COMMAND=x PID=1 EXITSTATUS=0";
    char request[4096];
    ssize_t length = recv(fd, request, sizeof request, 0);
    if (length < 0 && errno == EAGAIN) {
        return 0;
    }
    if (length > 0) {
        const char *text = request[0] == 'W' ? "0|0" : OF_LISTENER;
        clock_gettime(CLOCK_MONOTONIC, &last);
        requests++;
        send(fd, text, strlen(text), MSG_NOSIGNAL);
    }
    close(fd);
    return 1;
}

static void serve(int marked) {
    int fd = marked & ~LISTENS;
    if ((marked & LISTENS) == 0) {
        answer(fd);
        return;
    }
    int taken = accept4(fd, NULL, NULL, SOCK_NONBLOCK);
    if (taken >= 0 && !answer(taken)) {
        watch(taken, 0);
    }
}

static void report(void) {
    char line[64];
    if (read(STDIN_FILENO, line, sizeof line) <= 0) {
        exit(0);
    }
    printf("%ld %lld\n", requests, last.tv_sec * 1000000000LL + last.tv_nsec);
    fflush(stdout);
    requests = 0;
}

int main(int argc, char **argv) {
    if (argc != 3) {
        return 2;
    }
    struct rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    port = htons((in_port_t)atoi(argv[1]));
    dead = strcmp(argv[2], "dead") == 0;
    poller = epoll_create1(0);
    setvbuf(stdin, NULL, _IONBF, 0);
    char line[64];
    while (fgets(line, sizeof line, stdin) && line[0] != '\n') {
        line[strcspn(line, "\n")] = '\0';
        listen_at(line);
    }
    watch(STDIN_FILENO, 0);
    puts("ready");
    fflush(stdout);
    for (;;) {
        struct epoll_event events[512];
        int found = epoll_wait(poller, events, 512, -1);
        for (int i = 0; i < found; i++) {
            if (events[i].data.fd == STDIN_FILENO) {
                report();
            } else {
                serve(events[i].data.fd);
            }
        }
    }
}
