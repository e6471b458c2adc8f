/*
 * What a reply says and how it is sent. It is armed in one place, and sent
 * when the loop finds the socket writable.
 */
#include "tolva2/listen/reply.h"
#include "tolva2/base/trace.h"
#include "tolva2/net/sockets.h"
#include "tolva2/net/wire.h"

#include <algorithm>
#include <cstring>

namespace {

/* Only the program is named, never what it was given. */
void send_status(const connection *cn) {
    const char *program = cn->cmdline ? cn->cmdline.get() : "";
    auto program_length = static_cast<int>(strcspn(program, " "));
    char text[TEXT_BUFFER + 1];
    int length = snprintf(text, sizeof text,
                          "%s COMMAND=%.*s PID=%d EXITSTATUS=%d", REPLY_HEADER,
                          program_length, program, cn->pid, cn->exitstatus);
    auto size = static_cast<size_t>(std::clamp<int>(length, 0, TEXT_BUFFER));
    /* Nothing can be done about a reply that does not get through, and a
     * full socket must not hold the daemon up. */
    send(cn->fd.get(), text, size, MSG_DONTWAIT | MSG_NOSIGNAL);
}

} // namespace

void expect_reply(connection *cn, int32_t exitstatus) {
    cn->exitstatus = exitstatus;
    watch(cn->fd, EVENT_WRITABLE);
}

void handle_tcp_reply(ux_list_element *node) {
    trace_in();
    const connection *cn = record_of(node);
    if (sock_pending_error(cn->fd.get()) == 0) {
        send_status(cn);
    }
    unregister_connection(clients, node);
}
