/*
 * The floor of a listener: the least that any program must do which accepts a
 * connection, reads a request, has a shell run a script and answers when that
 * has ended. It has no settings, no log, no limits, and takes no care.
 *
 * usage: listen <port> <script>
 */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

enum { MOST = 1000 };

static struct client {
    pid_t script;
    int fd;
} clients[MOST];

static volatile sig_atomic_t child_ended;

static void note(int number) {
    (void)number;
    child_ended = 1;
}

static int listen_on(int port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    struct sockaddr_in to = {.sin_family = AF_INET,
                             .sin_port = htons((in_port_t)port),
                             .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
    if (bind(fd, (struct sockaddr *)&to, sizeof to) < 0 || listen(fd, 128)) {
        perror("listen");
        exit(1);
    }
    return fd;
}

static void serve(int fd, const char *script) {
    char request[4096];
    if (recv(fd, request, sizeof request, 0) <= 0) {
        close(fd);
        return;
    }
    pid_t child = fork();
    if (child == 0) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, NULL);
        execl("/bin/sh", "sh", "-c", script, (char *)NULL);
        _exit(127);
    }
    for (int i = 0; i < MOST; i++) {
        if (clients[i].script == 0) {
            clients[i] = (struct client){child, fd};
            return;
        }
    }
    abort();
}

static void answer(pid_t child, int status) {
    for (int i = 0; i < MOST; i++) {
        if (clients[i].script == child) {
            char text[128];
            int length = snprintf(text, sizeof text,
                                  "CONNECT TO TOLVA (REPLY) COMMAND=x "
                                  "PID=%ld EXITSTATUS=%d",
                                  (long)child, WEXITSTATUS(status));
            send(clients[i].fd, text, (size_t)length, MSG_NOSIGNAL);
            close(clients[i].fd);
            clients[i].script = 0;
            return;
        }
    }
}

int main(int argc, char **argv) {
    if (argc != 3) {
        return 2;
    }
    sigset_t held, waiting;
    sigemptyset(&held);
    sigaddset(&held, SIGCHLD);
    sigprocmask(SIG_BLOCK, &held, &waiting);
    sigaction(SIGCHLD, &(struct sigaction){.sa_handler = note}, NULL);
    struct pollfd door = {listen_on(atoi(argv[1])), POLLIN, 0};
    for (;;) {
        int found = ppoll(&door, 1, NULL, &waiting);
        if (child_ended) {
            int status;
            pid_t child;
            child_ended = 0;
            while ((child = waitpid(-1, &status, WNOHANG)) > 0) {
                answer(child, status);
            }
        }
        if (found > 0) {
            int fd = accept4(door.fd, NULL, NULL, SOCK_CLOEXEC);
            if (fd >= 0) {
                serve(fd, argv[2]);
            }
        }
    }
}
