/*
 * The clients of a listener: so many at a time, each of which sends a request,
 * waits for the answer and the end of the connection, and begins anew.
 *
 * Prints the nanoseconds of the whole. With a pipe, into which the script
 * writes when it began, there is one client, and what is printed is one line
 * for each request: the nanoseconds from before connect to that moment. A
 * request without a proper answer ends the run with status 1.
 *
 * usage: client <port> <clients> <requests> <request> [<pipe>]
 */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum { MOST = 64, PATIENCE_MS = 30000 };

static struct sockaddr_in listener = {.sin_family = AF_INET};
static const char *request, *expected = "EXITSTATUS=0";
static struct pollfd clients[MOST];
static int answered[MOST];

static long long now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000000000LL + time.tv_nsec;
}

static void give_up(const char *why) {
    perror(why);
    exit(1);
}

static void begin(int i) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, (struct sockaddr *)&listener, sizeof listener) < 0) {
        give_up("connect");
    }
    if (send(fd, request, strlen(request), MSG_NOSIGNAL) < 0) {
        give_up("send");
    }
    answered[i] = 0;
    clients[i] = (struct pollfd){fd, POLLIN, 0};
}

/* True when this request is over. */
static int go_on(int i) {
    char answer[4096];
    ssize_t length = recv(clients[i].fd, answer, sizeof answer - 1, 0);
    if (length > 0) {
        answer[length] = '\0';
        answered[i] = strstr(answer, expected) != NULL;
        return 0;
    }
    if (!answered[i]) {
        give_up("no answer");
    }
    close(clients[i].fd);
    return 1;
}

static void run(int at_once, long requests) {
    long begun = 0, over = 0;
    for (int i = 0; i < at_once; i++) {
        clients[i].fd = -1;
        if (begun < requests) {
            begun++;
            begin(i);
        }
    }
    while (over < requests) {
        if (poll(clients, (nfds_t)at_once, PATIENCE_MS) <= 0) {
            give_up("no answer in time");
        }
        for (int i = 0; i < at_once; i++) {
            if (clients[i].fd >= 0 && clients[i].revents && go_on(i)) {
                clients[i].fd = -1;
                over++;
                if (begun < requests) {
                    begun++;
                    begin(i);
                }
            }
        }
    }
}

static void time_first_instructions(const char *pipe, long requests) {
    int fd = open(pipe, O_RDWR);
    for (long i = 0; i < requests; i++) {
        struct timespec stamp;
        long long from = now();
        run(1, 1);
        if (read(fd, &stamp, sizeof stamp) != sizeof stamp) {
            give_up(pipe);
        }
        printf("%lld\n", stamp.tv_sec * 1000000000LL + stamp.tv_nsec - from);
    }
}

int main(int argc, char **argv) {
    if (argc < 5 || atoi(argv[2]) > MOST) {
        return 2;
    }
    listener.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    listener.sin_port = htons((in_port_t)atoi(argv[1]));
    request = argv[4];
    /* The status of a logged text may say that older lines had to go. */
    if (strstr(request, "LOG_TEXT")) {
        expected = "EXITSTATUS=";
    }
    if (argc > 5) {
        time_first_instructions(argv[5], atol(argv[3]));
    } else {
        long long from = now();
        run(atoi(argv[2]), atol(argv[3]));
        printf("%lld\n", now() - from);
    }
    return 0;
}
