/*
 * The listener's calls for time, signals, children and memory.
 *
 * A fork returns twice, as it should: first as the child, which goes on to
 * execl or _exit, where its life ends and its parent's stack, which was saved,
 * is put back; then as the parent.
 */
#include "calls.h"
#include "world.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <sys/wait.h>
#include <ucontext.h>

extern "C" void __asan_unpoison_memory_region(const volatile void *from,
                                              size_t size)
    __attribute__((weak));

using namespace simulate;

namespace simulate {

namespace {

/* With what the child needs until it is over. */
constexpr size_t BELOW_FRAME = 16384;

struct {
    const char *highest = nullptr;
    char *lowest = nullptr;
    std::vector<char> saved{};
    ucontext_t as_parent{}, switching{};
    std::vector<char> other_stack = std::vector<char>(65536);
    pid_t result = 0;
    bool child_is_over = false;
    sigset_t mask{};
    void (*handlers[65])(int){};
} forking;

/* AddressSanitizer's, where it is: its marks on the stack are no longer those
 * of the frames that come back. */
void forget_marks() {
    if (__asan_unpoison_memory_region != nullptr) {
        __asan_unpoison_memory_region(
            forking.lowest,
            static_cast<size_t>(forking.highest - forking.lowest));
    }
}

/* On a stack of its own, since it overwrites the listener's. */
void go_back() {
    memcpy(forking.lowest, forking.saved.data(), forking.saved.size());
    setcontext(&forking.as_parent);
}

/* The child's part is played: what it has set is forgotten. */
[[noreturn]] void end_as_child() {
    here->in_child = false;
    here->mask = forking.mask;
    for (size_t i = 0; i < 65; i++) {
        here->actions[i].handler = forking.handlers[i];
    }
    forking.child_is_over = true;
    forget_marks();
    getcontext(&forking.switching);
    forking.switching.uc_stack.ss_sp = forking.other_stack.data();
    forking.switching.uc_stack.ss_size = forking.other_stack.size();
    forking.switching.uc_link = nullptr;
    makecontext(&forking.switching, go_back, 0);
    setcontext(&forking.switching);
    abort();
}

void check_child() {
    for (int number : {SIGTERM, SIGQUIT, SIGINT, SIGCHLD}) {
        auto *handler = here->actions[number].handler;
        if (handler != SIG_IGN && handler != SIG_DFL) {
            fail("a script keeps the listener's handler until it runs");
        }
    }
    for (int number = 1; number < 65; number++) {
        if (sigismember(&here->mask, number) != (number == SIGCHLD ? 1 : 0)) {
            fail("a script starts with the wrong signals held back");
        }
    }
    for (const descriptor &one : here->table) {
        bool kept = one.what != holds::nothing && one.what != holds::inherited;
        if (kept && !one.close_on_exec &&
            (one.what != holds::socket ||
             !here->sockets[one.socket].leaks_allowed)) {
            fail("a script inherits a descriptor");
        }
    }
}

/* Returns, so that nothing of it is left when the child's stack goes. */
void become_script(const char *path, const char *argument, va_list rest) {
    std::string line = std::string(path) + " " + argument;
    for (const char *one = va_arg(rest, const char *); one != nullptr;
         one = va_arg(rest, const char *)) {
        line += std::string(" ") + one;
    }
    check_child();
    uint64_t seed =
        std::hash<std::string>()(line) ^ static_cast<uint64_t>(here->clock());
    forking.result = here->begin_child(line, seed);
    fact *told = here->note(act::fork);
    told->result = forking.result;
    told->text = line;
}

bool memory_is_out(which_call call) {
    if (here == nullptr || here->fail_allocation == 0 ||
        --here->fail_allocation > 0) {
        if (here != nullptr) {
            here->names_copy = false;
        }
        return false;
    }
    fact *told = here->note(act::no_memory);
    told->who = here->names_copy ? FILE_COPY : 0;
    told->limit = call;
    here->names_copy = false;
    errno = ENOMEM;
    return true;
}

} // namespace

void listener_stack_begins(const void *frame) {
    forking.highest = static_cast<const char *>(frame);
}

} // namespace simulate

extern "C" {

__attribute__((noinline)) pid_t __wrap_fork() {
    here->call();
    int error = 0;
    pid_t pid = -1;
    if (here->no_processes) {
        error = EAGAIN;
    } else if (!here->fails("fork", &error)) {
        pid_t unused = 0;
        pid_t last = here->last_pid;
        error = here->free_pid(&unused) ? 0 : EAGAIN;
        here->last_pid = last;
    }
    if (error != 0) {
        fact *told = here->note(act::fork);
        told->result = pid;
        told->error = error;
        errno = error;
        return pid;
    }
    forking.lowest =
        static_cast<char *>(__builtin_frame_address(0)) - BELOW_FRAME;
    forking.mask = here->mask;
    for (size_t i = 0; i < 65; i++) {
        forking.handlers[i] = here->actions[i].handler;
    }
    forking.child_is_over = false;
    getcontext(&forking.as_parent);
    if (forking.child_is_over) {
        return forking.result;
    }
    here->in_child = true;
    forget_marks();
    forking.saved.assign(static_cast<const char *>(forking.lowest),
                         forking.highest);
    return 0;
}

int __wrap_execl(const char *path, const char *argument, ...) {
    va_list rest;
    va_start(rest, argument);
    become_script(path, argument, rest);
    va_end(rest);
    end_as_child();
}

[[noreturn]] void __wrap__exit(int status) {
    fail("a child ends with status " + std::to_string(status));
}

pid_t __wrap_waitpid(pid_t pid, int *status, int options) {
    here->call();
    if ((options & WNOHANG) == 0) {
        fail("waitpid may block");
    }
    for (auto &[number, one] : here->children) {
        if (pid != -1 && pid != number) {
            continue;
        }
        bool stopped = !one.reported_stop && (options & WUNTRACED) != 0;
        if (!one.ended && !stopped) {
            continue;
        }
        *status = one.ended ? one.status : one.stop_status;
        pid_t found = number;
        fact *told = here->note(act::collect);
        told->result = found;
        told->limit = *status;
        if (one.ended) {
            here->children.erase(found);
        } else {
            one.reported_stop = true;
        }
        return found;
    }
    return here->children.empty() ? -1 : 0;
}

time_t __wrap_time(time_t *into) {
    time_t now = here->clock();
    if (into != nullptr) {
        *into = now;
    }
    return now;
}

int __wrap_sigprocmask(int how, const sigset_t *set, sigset_t *old) {
    if (old != nullptr) {
        *old = here->mask;
    }
    if (set != nullptr) {
        for (int number = 1; number < 65; number++) {
            bool in = sigismember(set, number) == 1;
            if (how == SIG_SETMASK) {
                (in ? sigaddset : sigdelset)(&here->mask, number);
            } else if (in) {
                (how == SIG_BLOCK ? sigaddset : sigdelset)(&here->mask, number);
            }
        }
    }
    if (!here->in_child) {
        here->call();
    }
    return 0;
}

int __wrap_sigaction(int number, const struct sigaction *to,
                     struct sigaction *old) {
    auto *action = &here->actions[number];
    if (old != nullptr) {
        *old = {};
        old->sa_handler = action->handler;
        old->sa_flags = action->flags;
    }
    if (to != nullptr) {
        if ((to->sa_flags & SA_RESTART) != 0) {
            fail("a signal that does not end the wait");
        }
        action->handler = to->sa_handler;
        action->flags = to->sa_flags;
    }
    here->call();
    return 0;
}

sighandler_t __wrap_signal(int number, sighandler_t handler) {
    sighandler_t before = here->actions[number].handler;
    here->actions[number].handler = handler;
    return before;
}

void *__wrap_malloc(size_t size) {
    if (memory_is_out(CALL_MALLOC)) {
        return nullptr;
    }
    if (here != nullptr) {
        here->blocks++;
    }
    return __real_malloc(size);
}

void *__wrap_calloc(size_t count, size_t size) {
    if (memory_is_out(CALL_CALLOC)) {
        return nullptr;
    }
    if (here != nullptr) {
        here->blocks++;
    }
    return __real_calloc(count, size);
}

char *__wrap_strdup(const char *text) {
    if (memory_is_out(CALL_STRDUP)) {
        return nullptr;
    }
    if (here != nullptr) {
        here->blocks++;
    }
    return __real_strdup(text);
}

void __wrap_free(void *block) {
    if (here != nullptr && block != nullptr) {
        here->blocks--;
    }
    __real_free(block);
}
}
