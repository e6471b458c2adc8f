/*
 * From a text to an address record. Most of this is the resolution of names:
 * the C library's resolver cannot be interrupted, so it works in a child that
 * can be killed when its time is up.
 */
#include "tolva2/net/address.h"
#include "tolva2/base/process_state.h"
#include "tolva2/base/signals.h"
#include "tolva2/base/trace.h"
#include "unixtools/ux_number.h"
#include "unixtools/ux_owned.h"
#include "unixtools/ux_portable.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int32_t RESOLVE_SECONDS = 10;

volatile sig_atomic_t resolve_timed_out = 0;

/* Once, after that many seconds; 0 disarms. */
bool arm_timer(int32_t seconds) {
    itimerval timer{};
    timer.it_value.tv_sec = seconds;
    return setitimer(ITIMER_REAL, &timer, nullptr) == 0;
}

} // namespace

char *split_addr(char **host, int32_t *port, char *text) {
    trace_in();
    if (!text || !*text) {
        return nullptr;
    }
    *host = text;
    *port = 0;
    char *colon = strrchr(text, ':');
    if (colon) {
        *colon = '\0';
        *port = ux_atoi(colon + 1);
    }
    return *host;
}

int32_t split_port(char **host, char *text) {
    trace_in();
    if (!text || !*text) {
        return 0;
    }
    char *colon = strrchr(text, ':');
    if (!colon) {
        *host = nullptr;
        return ux_atoi(text);
    }
    *colon = '\0';
    *host = text;
    return ux_atoi(colon + 1);
}

void sigalrm_itimer(int32_t) {
    trace_in();
    resolve_timed_out = 1;
    error_printf(stderr, ERROR_CONTINUE, "%s: timeout resolving hostname...\n",
                 progname);
}

bool start_timeout(int32_t seconds) {
    trace_in();
    if (!set_signal(SIGALRM, sigalrm_itimer, 0)) {
        return false;
    }
    if (!arm_timer(seconds)) {
        set_signal(SIGALRM, SIG_DFL, 0);
        return false;
    }
    trace_out();
    return true;
}

void stop_timeout() {
    trace_in();
    /* Disarmed first: the default action of a late alarm would kill us. */
    arm_timer(0);
    set_signal(SIGALRM, SIG_IGN, 0);
    set_signal(SIGALRM, SIG_DFL, 0);
}

const char *GetHostAddrFromHostName(const char *name) {
    trace_in();
    static char text[ADDRESS_TEXT];
    if (!name || !*name) {
        return nullptr;
    }
    const hostent *entry = gethostbyname(name);
    if (!entry || entry->h_addrtype != AF_INET || !entry->h_addr_list[0]) {
        return nullptr;
    }
    unsigned char octets[4];
    memcpy(octets, entry->h_addr_list[0], sizeof octets);
    snprintf(text, sizeof text, "%u.%u.%u.%u", octets[0], octets[1], octets[2],
             octets[3]);
    trace_out();
    return text;
}

namespace {

/* Waits for the resolving child's answer until it comes, the child ends or
 * the alarm goes off. The alarm is let in only while waiting, so that it
 * cannot slip through just before and its handler never runs inside other
 * code. */
bool read_answer(int fd, bool armed, char *text) {
    sigset_t wait_mask;
    sigprocmask(SIG_SETMASK, nullptr, &wait_mask);
    sigdelset(&wait_mask, SIGALRM);
    const timespec limit{RESOLVE_SECONDS, 0};
    int ready = -1;
    while (ready < 0 && !resolve_timed_out) {
        ready = ux_wait_readable(fd, armed ? nullptr : &limit, &wait_mask);
        if (ready < 0 && errno != EINTR) {
            return false;
        }
    }
    if (ready == 0) {
        sigalrm_itimer(SIGALRM);
    }
    if (resolve_timed_out) {
        return false;
    }
    ssize_t length = read(fd, text, ADDRESS_TEXT - 1);
    text[length > 0 ? length : 0] = '\0';
    return length > 0;
}

/* The child's whole life: one look-up, one answer. */
[[noreturn]] void answer_and_exit(int fd, const char *host) {
    const char *found = GetHostAddrFromHostName(host);
    if (found) {
        [[maybe_unused]] ssize_t written = write(fd, found, strlen(found));
    }
    _exit(0);
}

/* Has a child look host up, and answer there; -1 when none can be had. */
pid_t start_resolver(const char *host, ux_fd *answer) {
    int ends[2];
    if (pipe(ends) < 0) {
        return -1;
    }
    answer->reset(ends[0]);
    ux_fd question(ends[1]);
    pid_t child = fork();
    if (child == 0) {
        answer->reset();
        answer_and_exit(question.get(), host);
    }
    return child;
}

/* Without a child the alarm can only hope to interrupt the resolver. */
bool resolve_here(const char *host, const sigset_t *mask, char *text) {
    sigprocmask(SIG_SETMASK, mask, nullptr);
    const char *found = GetHostAddrFromHostName(host);
    if (!found || resolve_timed_out) {
        return false;
    }
    strncat(text, found, ADDRESS_TEXT - 1);
    return true;
}

/* Resolves host within ten seconds into text, which is empty before. */
bool resolve_host(const char *host, char *text) {
    sigset_t alarm_set;
    sigset_t old_mask;
    sigemptyset(&alarm_set);
    sigaddset(&alarm_set, SIGALRM);
    sigprocmask(SIG_BLOCK, &alarm_set, &old_mask);
    resolve_timed_out = 0;
    bool armed = start_timeout(RESOLVE_SECONDS);
    ux_fd answer;
    pid_t child = start_resolver(host, &answer);
    bool found = child > 0 ? read_answer(answer.get(), armed, text)
                           : resolve_here(host, &old_mask, text);
    stop_timeout();
    if (child > 0) {
        if (!found) {
            kill(child, SIGKILL);
        }
        while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    sigprocmask(SIG_SETMASK, &old_mask, nullptr);
    return found;
}

/* The address of host, resolved if need be: false after a message. */
bool find_address(const char *host, inetaddr *iaddr) {
    char *text = iaddr->text;
    if (ux_dotted(host, &iaddr->addr.sin_addr)) {
        strncat(text, host, ADDRESS_TEXT - 1);
        return true;
    }
    if (!resolve_host(host, text)) {
        error_printf(stderr, ERROR_CONTINUE,
                     "%s: could not resolve hostname `%s'\n", progname, host);
        return false;
    }
    if (!ux_dotted(text, &iaddr->addr.sin_addr)) {
        error_printf(stderr, ERROR_CONTINUE, "%s: address invalid `%s'\n",
                     progname, text);
        return false;
    }
    return true;
}

/* Makes a zeroed record that of a host: false after a message. */
bool fill_inetaddr(inetaddr *iaddr, const char *host, uint16_t port,
                   address_kind kind, mode_code mode) {
    debug_printf("DEBUG: sizeof(iaddr->addr) = %d\n",
                 static_cast<int>(sizeof iaddr->addr));
    iaddr->mode = mode;
    iaddr->kind = kind;
    iaddr->addr.sin_family = AF_INET;
    iaddr->addr.sin_port = htons(port);
    iaddr->port = static_cast<int16_t>(port);
    return find_address(host, iaddr);
}

/* A list that lost a member would mean something else. */
[[noreturn]] void no_memory() {
    fatal("%s: malloc(): %s\n", progname, strerror(ENOMEM));
}

} // namespace

ux_owner<inetaddr> new_inetaddr(const char *host, uint16_t port,
                                address_kind kind, mode_code mode) {
    trace_in();
    ux_owner<inetaddr> iaddr(ux_new<inetaddr>());
    if (iaddr && !fill_inetaddr(iaddr.get(), host, port, kind, mode)) {
        iaddr.reset();
    }
    return iaddr;
}

void destroy_inetaddr(void *data) {
    trace_in();
    ux_delete(static_cast<inetaddr *>(data));
}

bool add_inetaddr(ux_list *list, char *text, address_kind kind,
                  mode_code mode) {
    trace_in();
    char *host = nullptr;
    int32_t port = 0;
    if (!split_addr(&host, &port, text)) {
        return false;
    }
    trace_in("new_inetaddr");
    ux_owner<inetaddr> iaddr(ux_new<inetaddr>());
    if (!iaddr) {
        no_memory();
    }
    if (!fill_inetaddr(iaddr.get(), host, static_cast<uint16_t>(port), kind,
                       mode)) {
        return false;
    }
    if (ux_list_ins_next(list, list->tail, iaddr.get()) != 0) {
        no_memory();
    }
    [[maybe_unused]] inetaddr *lists_own = iaddr.release();
    return true;
}

int32_t get_inetaddr_arr_from_str(ux_list *list, const char *text,
                                  address_kind kind, mode_code mode) {
    trace_in();
    if (ux_is_empty(text)) {
        return 0;
    }
    ux_text copy = ux_copy(text);
    if (!copy) {
        no_memory();
    }
    int32_t added = 0;
    char *rest = nullptr;
    const char *space = " \t\n\v\f\r";
    for (char *token = strtok_r(copy.get(), space, &rest); token;
         token = strtok_r(nullptr, space, &rest)) {
        added += add_inetaddr(list, token, kind, mode);
    }
    return added;
}
