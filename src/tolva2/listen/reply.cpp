#include "tolva2/listen/reply.h"
#include "tolva2/base/trace.h"
#include "tolva2/net/sockets.h"
#include "tolva2/net/wire.h"

#include <cstring>

namespace
{

/* Only the program is named, never what it was given. */
void send_status(const connection *cn)
{
    const char *program = cn->cmdline ? cn->cmdline : "";
    auto program_length = static_cast<int>(strcspn(program, " "));
    char text[TEXT_BUFFER + 1];
    int length = snprintf(text, sizeof text,
                          "%s COMMAND=%.*s PID=%d EXITSTATUS=%d", REPLY_HEADER,
                          program_length, program, cn->pid, cn->exitstatus);
    size_t size = length > 0 ? static_cast<size_t>(length) : 0;
    if (size > TEXT_BUFFER) {
        size = TEXT_BUFFER;
    }
    /* Nothing can be done about a reply that does not get through, and a
     * full socket must not hold the daemon up. */
    ssize_t sent = send(cn->fd, text, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    static_cast<void>(sent);
}

} // namespace

void handle_tcp_reply(ux_list_element *node)
{
    trace_in();
    const connection *cn = record_of(node);
    if (sock_pending_error(cn->fd) == 0) {
        send_status(cn);
    }
    unregister_connection(clients, node);
}
