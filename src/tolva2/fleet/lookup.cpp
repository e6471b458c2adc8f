/*
 * A child's life: it lets go of the other hosts' connections, which would stay
 * open with it, asks, answers with four bytes and ends.
 */
#include "tolva2/fleet/lookup.h"
#include "tolva2/base/signals.h"
#include "tolva2/net/address.h"
#include "unixtools/ux_portable.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/wait.h>

namespace {

constexpr size_t NAME_SIZE = 256;

void forget_signals() {
    for (int number : {SIGINT, SIGTERM, SIGHUP, SIGALRM}) {
        set_signal(number, SIG_DFL, 0);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

void close_all_but(int kept, int32_t descriptors) {
    for (int fd = STDERR_FILENO + 1; fd < descriptors; fd++) {
        if (fd != kept) {
            close(fd);
        }
    }
}

[[noreturn]] void look_up(int answer, const char *name, int32_t seconds,
                          int32_t descriptors) {
    forget_signals();
    alarm(static_cast<unsigned>(seconds) + 1);
    close_all_but(answer, descriptors);
    const char *found = GetHostAddrFromHostName(name);
    in_addr address{};
    if (found && ux_dotted(found, &address)) {
        [[maybe_unused]] ssize_t written =
            write(answer, &address, sizeof address);
    }
    _exit(0);
}

} // namespace

lookup::~lookup() { end_lookup(this); }

bool start_lookup(lookup *one, std::string_view name, int32_t seconds,
                  int32_t descriptors) {
    char text[NAME_SIZE];
    int ends[2];
    if (name.size() >= sizeof text || pipe(ends) < 0) {
        return false;
    }
    memcpy(text, name.data(), name.size());
    text[name.size()] = '\0';
    ux_fd answer(ends[0]);
    ux_fd question(ends[1]);
    pid_t child = fork();
    if (child < 0) {
        return false;
    }
    if (child == 0) {
        look_up(question.get(), text, seconds, descriptors);
    }
    one->answer = std::move(answer);
    one->child = child;
    return true;
}

std::optional<in_addr> take_answer(const lookup &one) {
    in_addr address;
    ssize_t length = read(one.answer.get(), &address, sizeof address);
    if (length != static_cast<ssize_t>(sizeof address)) {
        return {};
    }
    return address;
}

void end_lookup(lookup *one) {
    one->answer.reset();
    if (one->child > 0) {
        kill(one->child, SIGKILL);
        while (waitpid(one->child, nullptr, 0) < 0 && errno == EINTR) {
        }
        one->child = -1;
    }
    one->host = -1;
}
