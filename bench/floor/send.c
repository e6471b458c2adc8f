/*
 * The floor of a sender to many: one process connects to all hosts at the same
 * time, sends each the request and reads its answer. It knows addresses alone,
 * and says nothing but who has answered. It ends when nothing has happened for
 * so many seconds.
 *
 * usage: send <port> <seconds> <request> <hosts
 */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

static struct host {
    struct in_addr address;
    int fd;
    int sent;
} * hosts;

static size_t count, next, under_way, room;
static int poller;
static in_port_t port;

static void read_hosts(void) {
    char line[64];
    size_t space = 0;
    while (fgets(line, sizeof line, stdin)) {
        line[strcspn(line, "\n")] = '\0';
        if (count == space) {
            space = space ? space * 2 : 1024;
            hosts = realloc(hosts, space * sizeof *hosts);
        }
        if (!hosts) {
            abort();
        }
        hosts[count].sent = 0;
        if (inet_pton(AF_INET, line, &hosts[count].address) == 1) {
            count++;
        }
    }
}

static void over(struct host *h, const char *outcome) {
    char text[INET_ADDRSTRLEN];
    close(h->fd);
    under_way--;
    printf("%s %s\n", inet_ntop(AF_INET, &h->address, text, sizeof text),
           outcome);
}

/* As many at once as there are descriptors. */
static void start(void) {
    while (next < count && under_way < room) {
        struct host *h = &hosts[next++];
        struct sockaddr_in to = {
            .sin_family = AF_INET, .sin_port = port, .sin_addr = h->address};
        h->fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        under_way++;
        connect(h->fd, (struct sockaddr *)&to, sizeof to);
        struct epoll_event event = {.events = EPOLLOUT, .data.ptr = h};
        epoll_ctl(poller, EPOLL_CTL_ADD, h->fd, &event);
    }
}

static void serve(struct host *h, const char *request) {
    char answer[4096];
    if (!h->sent) {
        if (send(h->fd, request, strlen(request), MSG_NOSIGNAL) < 0) {
            over(h, "dead");
            return;
        }
        struct epoll_event event = {.events = EPOLLIN, .data.ptr = h};
        epoll_ctl(poller, EPOLL_CTL_MOD, h->fd, &event);
        h->sent = 1;
    } else {
        over(h, recv(h->fd, answer, sizeof answer, 0) > 0 ? "done" : "closed");
    }
}

int main(int argc, char **argv) {
    if (argc != 4) {
        return 2;
    }
    struct rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    room = limit.rlim_cur - 8;
    port = htons((in_port_t)atoi(argv[1]));
    int patience = atoi(argv[2]) * 1000;
    poller = epoll_create1(0);
    read_hosts();
    for (start(); under_way > 0; start()) {
        struct epoll_event events[512];
        int found = epoll_wait(poller, events, 512, patience);
        if (found <= 0) {
            return 1;
        }
        for (int i = 0; i < found; i++) {
            serve(events[i].data.ptr, argv[3]);
        }
    }
    return 0;
}
