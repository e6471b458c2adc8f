/*
 * The steps of a talk. Most of it is finding out why there was no answer: a
 * listener that does not admit us drops the connection with our request in it
 * unread, which the system tells us by a reset, and one that has nothing to
 * run closes it in good order.
 */
#include "tolva2/fleet/talk.h"
#include "tolva2/base/codes.h"
#include "tolva2/fleet/fleet_text.h"
#include "tolva2/net/sockets.h"
#include "tolva2/net/wire.h"
#include "unixtools/ux_number.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <strings.h>
#include <sys/ioctl.h>

namespace {

constexpr size_t ANSWER_SHOWN = 80;
constexpr size_t STATUS_TEXT = 16;

/* Errors that say nothing of the host. */
bool is_shortage(int error) {
    switch (error) {
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
    case EAGAIN:
    case EADDRNOTAVAIL:
        return true;
    default:
        return false;
    }
}

verdict not_connected(int error) {
    if (error == ECONNREFUSED) {
        return judged(outcome::refused,
                      "connection refused: nobody listens on that port");
    }
    return judged(outcome::unreachable, "%s", strerror(error));
}

verdict dropped() {
    return judged(outcome::refused,
                  "dropped unread by the listener: this host is not among its "
                  "AllowedAddresses");
}

/* The connection has broken while it was open. */
verdict broken(int error) {
    if (error == ECONNRESET || error == EPIPE) {
        return dropped();
    }
    return judged(outcome::unreachable, "lost: %s", strerror(error));
}

verdict closed_unanswered() {
    return judged(outcome::closed,
                  "closed without an answer: the listener has run nothing");
}

/* True unless the system says that what was sent is still on its way. */
bool is_delivered(int fd) {
#ifdef TIOCOUTQ
    int unsent = 0;
    return ioctl(fd, TIOCOUTQ, &unsent) != 0 || unsent == 0;
#else
    return fd < 0; /* nobody knows: a reset is waited for */
#endif
}

verdict send_request(talk *one, const char *command) {
    int32_t error = sock_pending_error(one->socket.get());
    if (error != 0) {
        return not_connected(error);
    }
    errno = 0;
    if (send_ok(one->socket.get(), command) == 0) {
        return broken(errno);
    }
    one->stage = talk_stage::answering;
    return {};
}

/* The answer so far, with what has come now: false without memory. */
bool keep_answer(talk *one, std::string_view more) {
    std::string_view before;
    if (one->length > 0) {
        before = {one->answer.get(), one->length};
    } else {
        before = "";
    }
    ux_text all = ux_join({before, more});
    if (all) {
        one->answer = std::move(all);
        one->length += more.size();
    }
    return one->answer != nullptr;
}

verdict end_of_answer(talk *one) {
    if (one->length > 0) {
        return judge_answer(one->answer.get(), one->length, true);
    }
    if (is_delivered(one->socket.get())) {
        return closed_unanswered();
    }
    one->stage = talk_stage::hanging_up;
    return {};
}

verdict receive(talk *one) {
    char piece[TEXT_BUFFER];
    ssize_t length =
        recv(one->socket.get(), piece, sizeof piece - 1 - one->length, 0);
    if (length < 0 && (errno == EAGAIN || errno == EINTR)) {
        return {};
    }
    if (length < 0 && one->length == 0) {
        return broken(errno);
    }
    if (length <= 0) {
        return end_of_answer(one);
    }
    bool first = one->length == 0;
    if (first) {
        piece[length] = '\0';
        verdict found = judge_answer(piece, static_cast<size_t>(length), false);
        if (found.result != outcome::open) {
            return found;
        }
    }
    if (!keep_answer(one, {piece, static_cast<size_t>(length)})) {
        return judged(outcome::garbage, "%s", strerror(ENOMEM));
    }
    return first ? verdict{}
                 : judge_answer(one->answer.get(), one->length,
                                one->length >= TEXT_BUFFER - 1);
}

verdict garbage(const char *answer, size_t length) {
    char shown[ANSWER_SHOWN];
    show_answer(shown, sizeof shown, {answer, length});
    return judged(outcome::garbage, "not an answer: %s", shown);
}

verdict script_ended(int32_t status) {
    verdict found =
        status == 0 ? judged(outcome::done, "%s", "")
        : status == 127
            ? judged(outcome::failed,
                     "its script has ended with 127: not found, perhaps")
            : judged(outcome::failed, "its script has ended with %d", status);
    found.has_status = true;
    found.status = status;
    return found;
}

} // namespace

verdict judge_answer(const char *answer, size_t length, bool final) {
    if (strncasecmp(answer, REPLY_HEADER,
                    std::min(length, REPLY_HEADER_LENGTH)) != 0) {
        return garbage(answer, length);
    }
    if (length < REPLY_HEADER_LENGTH) {
        return final ? garbage(answer, length) : verdict{};
    }
    const char *text = answer + REPLY_HEADER_LENGTH;
    text += strnlen(answer, length) > REPLY_HEADER_LENGTH ? 1 : 0;
    char value[STATUS_TEXT];
    if (get_key_value(text, "EXITSTATUS", value, sizeof value)) {
        return script_ended(ux_atoi(value));
    }
    return final ? judged(outcome::failed, "its answer has no exit status")
                 : verdict{};
}

open_result open_talk(const sockaddr_in &address) {
    open_result opened;
    opened.socket = tcp_socket_nonblock();
    if (!opened.socket || !set_close_on_exec(opened.socket.get()) ||
        !sock_connect(opened.socket.get(), &address)) {
        int error = errno;
        opened.shortage = is_shortage(error);
        opened.found = not_connected(error);
    }
    return opened;
}

verdict continue_talk(talk *one, const char *command) {
    switch (one->stage) {
    case talk_stage::connecting:
        return send_request(one, command);
    case talk_stage::answering:
        return receive(one);
    case talk_stage::hanging_up:
        break;
    }
    return dropped();
}

verdict expire_talk(const talk &one) {
    switch (one.stage) {
    case talk_stage::connecting:
        return judged(outcome::unreachable, "no connection in time");
    case talk_stage::answering:
        return judged(outcome::timeout,
                      "told, but no answer in time: its script may still run");
    case talk_stage::hanging_up:
        break;
    }
    return closed_unanswered();
}
