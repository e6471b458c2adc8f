/*
 * Clocks, the agenda of what happens outside, signals, and the wait.
 */
#include "world.h"

#include <cerrno>

namespace simulate {

world *here = nullptr;

namespace {

constexpr int64_t CALL_COST = 15;
constexpr int64_t CALLS_A_DAY = 2000000;
constexpr size_t FACTS_A_DAY = 2000000; /* some hundred megabytes */
constexpr int64_t WAITS_A_SECOND = 20000;

} // namespace

world::world(const day_plan &of)
    : plan(&of), luck(of.seed, 1), descriptor_limit(0),
      last_pid(of.settings.first_pid - 1) {
    const day_settings &chosen = of.settings;
    clock_offset = chosen.clock * SECOND;
    descriptor_limit = chosen.descriptor_limit;
    sigemptyset(&mask);
    sigemptyset(&pending);
    sigemptyset(&held_over);
    for (int i = 0; i < chosen.inherited; i++) {
        open_number(holds::inherited, 0, false);
    }
    moods.assign(chosen.servers.size(), mood::mixed);
    for (mood &one : moods) {
        one = luck.one_in(3) ? mood::mixed : mood::answers;
    }
    auto texts = std::make_shared<file_body>();
    texts->which = FILE_TEXTS;
    texts->bytes = chosen.texts;
    files[TEXTS_NAME] = texts;
    for (const outside_event &one : of.events) {
        at(one.at, [this, one] { happens(one); });
    }
    at(of.end, [this] {
        raise(SIGTERM);
        stopping = true;
    });
}

void world::at(int64_t when, std::function<void()> then) {
    agenda.push({when, order++, std::move(then)});
}

void world::pass(int64_t microseconds) {
    int64_t until = now + microseconds;
    while (!agenda.empty() && agenda.top().at <= until) {
        now = std::max(now, agenda.top().at);
        std::function<void()> then = agenda.top().then;
        agenda.pop();
        then();
    }
    now = until;
}

void world::call() {
    if (++calls > CALLS_A_DAY) {
        fail("the listener calls the system without end");
    }
    if (in_child) {
        return;
    }
    pass(CALL_COST);
    if (awaited_call > 0 && --awaited_call == 0) {
        raise(comes_with_it);
    }
    deliver();
}

fact *world::note(act what) {
    fact one;
    one.what = what;
    one.clock = clock();
    one.at = now;
    one.held = held();
    one.blocks = blocks;
    facts.push_back(std::move(one));
    if (facts.size() > FACTS_A_DAY) {
        fail("the listener does something without end");
    }
    return &facts.back();
}

void world::tell(const std::string &text) { note(act::outside)->text = text; }

bool world::fails(const char *name, int *error) {
    for (auto one = failing_calls.begin(); one != failing_calls.end(); ++one) {
        if (one->name == name) {
            *error = one->error;
            failing_calls.erase(one);
            return true;
        }
    }
    return false;
}

void world::happens(const outside_event &one) {
    chance dice(one.seed);
    std::string name = "event " + std::to_string(one.number) + ": ";
    /* A window of time in which something is refused. */
    auto for_a_while = [&](std::function<void()> over) {
        const int64_t lengths[] = {SECOND / 1000, SECOND / 50, SECOND / 2,
                                   3 * SECOND, 40 * SECOND};
        at(now + dice.pick(lengths), std::move(over));
    };
    switch (one.what) {
    case happening::session:
        tell(name + "a sender connects");
        begin_session(one);
        break;
    case happening::datagram:
        tell(name + "a datagram");
        send_datagram(one);
        break;
    case happening::server_mood:
        tell(name + "a server behaves otherwise");
        change_mood(one.seed);
        break;
    case happening::shortage: {
        const int errors[] = {EMFILE, ENFILE, ENFILE, ENOBUFS, ENOMEM};
        shortage_error = dice.pick(errors);
        tell(name + "shortage " + std::to_string(shortage_error));
        for_a_while([this] { shortage_error = 0; });
        break;
    }
    case happening::no_memory:
        fail_allocation = static_cast<int>(dice.between(1, 5));
        tell(name + "an allocation will fail");
        break;
    case happening::disk_full:
        disk_room = dice.between(0, 200);
        tell(name + "the disk is full");
        for_a_while([this] { disk_room = -1; });
        break;
    case happening::clock_step: {
        const int64_t steps[] = {1, 2, 9, 60, 3600, 86400, 400000};
        int64_t step = dice.pick(steps) * (dice.one_in(2) ? 1 : -1);
        clock_offset += step * SECOND;
        tell(name + "the clock is set by " + std::to_string(step));
        break;
    }
    case happening::stray_signal: {
        const int numbers[] = {SIGCHLD, SIGHUP, SIGPIPE, SIGXFSZ, SIGINT};
        int number = dice.pick(numbers);
        /* This one is ignored by a daemon only. */
        if (number != SIGINT || plan->settings.debug_level < 0) {
            tell(name + "signal " + std::to_string(number));
            raise(number);
        }
        break;
    }
    case happening::interruption:
        tell(name + "stopped and continued");
        interrupted = true;
        break;
    case happening::stray_child:
        if (actions[SIGCHLD].handler == SIG_DFL) {
            break; /* Of its end nobody would hear yet. */
        }
        tell(name + "somebody else's child");
        begin_child("", one.seed);
        /* Now and then more end together than are collected at once. */
        for (int i = dice.one_in(4) ? plan->strays : 0; i > 0; i--) {
            begin_child("", one.seed);
        }
        break;
    case happening::failing_call:
        tell(name + "a call will fail");
        call_will_fail(one.seed);
        break;
    case happening::limit_change:
        descriptor_limit =
            plan->settings.inherited + static_cast<int>(dice.between(4, 14));
        tell(name + "limit of descriptors " + std::to_string(descriptor_limit));
        for_a_while(
            [this] { descriptor_limit = plan->settings.descriptor_limit; });
        break;
    case happening::log_removed:
        tell(name + "the log is removed");
        files.erase(LOG_NAME);
        note(act::log_removed);
        break;
    case happening::texts_lost:
        tell(name + "the texts are away");
        texts_lost = true;
        for_a_while([this] { texts_lost = false; });
        break;
    case happening::no_processes:
        tell(name + "no processes");
        no_processes = true;
        for_a_while([this] { no_processes = false; });
        break;
    case happening::early_stop: {
        const int numbers[] = {SIGTERM, SIGTERM, SIGQUIT, SIGINT};
        int number = dice.pick(numbers);
        tell(name + "stop signal " + std::to_string(number));
        comes_with_it = number;
        awaited_call =
            dice.one_in(3) ? 0 : static_cast<int>(dice.between(1, 40));
        if (awaited_call == 0) {
            raise(number);
        }
        /* As when a whole group of processes is signalled. */
        if (awaited_call == 0 && dice.one_in(2)) {
            raise(SIGCHLD);
        }
        break;
    }
    case happening::wait_fails:
        tell(name + "the wait will fail");
        wait_error = ENOMEM;
        break;
    }
}

void world::raise(int number) {
    const auto &action = actions[number];
    bool ignored = action.handler == SIG_IGN ||
                   (action.handler == SIG_DFL && number == SIGCHLD);
    if (ignored) {
        return;
    }
    if (action.handler == SIG_DFL) {
        /* Before anything is installed it would simply end the process. */
        if (has_waited) {
            fail("signal " + std::to_string(number) + " ends the listener");
        }
        return;
    }
    sigaddset(&pending, number);
}

bool world::deliver() {
    bool any = false;
    if (sigisemptyset(&pending)) {
        return false;
    }
    for (int number = 1; number < 65; number++) {
        if (sigismember(&pending, number) != 1 ||
            sigismember(&mask, number) == 1) {
            continue;
        }
        sigdelset(&pending, number);
        sigdelset(&held_over, number);
        any = true;
        if (actions[number].handler == SIG_DFL) {
            fail("signal " + std::to_string(number) + " ends the listener");
        }
        if (actions[number].handler != SIG_IGN) {
            note(act::signal)->result = number;
            stop_heard = stop_heard || number == SIGTERM || number == SIGQUIT ||
                         number == SIGINT;
            actions[number].handler(number);
        }
    }
    return any;
}

bool world::find_ready(int count, const fd_set &r, const fd_set &w, fd_set *fr,
                       fd_set *fw, int *found) {
    FD_ZERO(fr);
    FD_ZERO(fw);
    *found = 0;
    for (int fd = 0; fd < count; fd++) {
        bool reads = FD_ISSET(fd, &r);
        bool writes = FD_ISSET(fd, &w);
        if (!reads && !writes) {
            continue;
        }
        const simulated_socket *one = socket_of(fd);
        if (!one) {
            fail("waits for descriptor " + std::to_string(fd) +
                 ", which is no open socket");
        }
        if (reads && readable(*one)) {
            FD_SET(fd, fr);
            ++*found;
        }
        if (writes && (one->writable || one->error != 0)) {
            FD_SET(fd, fw);
            ++*found;
        }
    }
    return *found > 0;
}

void world::check_sockets() const {
    for (const auto &[number, one] : sockets) {
        if (one.fd < 0) {
            continue;
        }
        bool leaks = !table[static_cast<size_t>(one.fd)].close_on_exec;
        if (leaks && !one.leaks_allowed) {
            fail("scripts would inherit socket " + std::to_string(number));
        }
        if (one.kind == socket_kind::outbound && !one.nonblocking) {
            fail("a connect may block");
        }
        if (one.kind == socket_kind::client && !one.keep_alive &&
            !one.leaks_allowed) {
            fail("a client without keep-alive");
        }
    }
}

void world::check_masks(const sigset_t *wait_mask) const {
    if (!sigisemptyset(&held_over)) {
        fail("a signal was held back over a whole pass");
    }
    if (wait_mask == nullptr || sigisemptyset(wait_mask)) {
        return;
    }
    for (int number = 1; number < 65; number++) {
        if (sigismember(wait_mask, number) == 1 &&
            actions[number].handler != SIG_IGN) {
            fail("a wait that no signal ends");
        }
    }
}

/* What a handler has been told is not slept over. */
void world::check_wake_ups() const {
    if (stop_heard) {
        fail("waits after a stop signal");
    }
    for (const auto &[pid, one] : children) {
        bool news = one.ended || !one.reported_stop;
        if (news && sigismember(&pending, SIGCHLD) != 1) {
            fail("waits while child " + std::to_string(pid) +
                 " is to be collected");
        }
    }
}

int world::wait_for(int count, fd_set *readable_set, fd_set *writable_set,
                    const timespec *limit, const sigset_t *wait_mask) {
    call();
    if (now / SECOND != second) {
        second = now / SECOND;
        waits_in_second = 0;
    }
    if (++waits_in_second > WAITS_A_SECOND) {
        fail("the listener spins");
    }
    check_masks(wait_mask);
    has_waited = true;
    check_wake_ups();
    check_sockets();
    fact *asked = note(act::wait);
    asked->limit = limit ? limit->tv_sec : -1;
    for (const auto &[number, one] : sockets) {
        asked->sockets += one.fd >= 0 ? 1 : 0;
    }
    for (int fd = 0; fd < std::min(count, FD_SETSIZE); fd++) {
        const simulated_socket *one = socket_of(fd);
        if (FD_ISSET(fd, readable_set)) {
            asked->readable.push_back(one ? one->number : -fd);
        }
        if (FD_ISSET(fd, writable_set)) {
            asked->writable.push_back(one ? one->number : -fd);
        }
    }
    int64_t until = limit ? now + limit->tv_sec * SECOND : INT64_MAX;
    sigset_t before = mask;
    mask = wait_mask ? *wait_mask : mask;
    int result = 0;
    int error = 0;
    fd_set found_r;
    fd_set found_w;
    FD_ZERO(&found_r);
    FD_ZERO(&found_w);
    for (;;) {
        if (wait_error != 0) {
            error = wait_error;
            wait_error = 0;
            result = -1;
            break;
        }
        if (find_ready(count, *readable_set, *writable_set, &found_r, &found_w,
                       &result)) {
            break;
        }
        if (deliver() || interrupted) {
            interrupted = false;
            error = EINTR;
            result = -1;
            break;
        }
        if (now >= until) {
            break;
        }
        if (agenda.empty() && until == INT64_MAX) {
            fail(stopping ? "waits on after a stop signal" : "waits for ever");
        }
        int64_t next = agenda.empty() ? until : agenda.top().at;
        pass(std::max<int64_t>(std::min(next, until) - now, 0));
    }
    mask = before;
    interrupted = false;
    /* Until the process runs again. */
    pass(luck.between(0, 60));
    fact *told = note(act::waited);
    told->result = result;
    told->error = error;
    if (result >= 0) {
        *readable_set = found_r;
        *writable_set = found_w;
        for (int fd = 0; fd < std::min(count, FD_SETSIZE); fd++) {
            if (FD_ISSET(fd, &found_r)) {
                told->readable.push_back(socket_of(fd)->number);
            }
            if (FD_ISSET(fd, &found_w)) {
                told->writable.push_back(socket_of(fd)->number);
            }
        }
    }
    held_over = pending;
    errno = error;
    return result;
}

} // namespace simulate
