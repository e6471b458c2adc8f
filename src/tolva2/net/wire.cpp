/*
 * The texts that go out, put together and sent in one piece, and the little
 * that is read of those that come in.
 */
#include "tolva2/net/wire.h"
#include "tolva2/base/codes.h"
#include "tolva2/base/trace.h"
#include "tolva2/net/sockets.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <strings.h>

namespace {

constexpr const char *KESDAL_CLIENT = "WINCLIENT";
constexpr const char *KESDAL_LOGON = "LOGON";
constexpr const char *KESDAL_LOGOFF = "LOGOFF";

/* Builds a request in buffer: false when it does not fit. */
bool format_request(char *buffer, size_t size, const char *command) {
    bool bare = ux_is_empty(command);
    int length = snprintf(buffer, size, "%s%s%s", REQUEST_HEADER,
                          bare ? "" : " ", bare ? "" : command);
    return length > 0 && static_cast<size_t>(length) < size;
}

/* The descriptor's own number stands for a client number: no other socket of
 * this host's program has it at that moment. */
int32_t send_kesdal(int32_t fd, const char *verb) {
    char buffer[TEXT_BUFFER];
    snprintf(buffer, sizeof buffer, "%s %05d %s", KESDAL_CLIENT, fd, verb);
    return sock_send_text0(fd, buffer);
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }

} // namespace

int32_t send_ok(int32_t fd, const char *command) {
    trace_in();
    char buffer[TEXT_BUFFER];
    return format_request(buffer, sizeof buffer, command)
               ? sock_send_text(fd, buffer)
               : 0;
}

int32_t udp_send_ok(int32_t fd, uint16_t port, const char *dotted,
                    const char *command) {
    trace_in();
    char buffer[DATAGRAM_TEXT];
    return format_request(buffer, sizeof buffer, command)
               ? udp_send_text(fd, port, dotted, buffer)
               : 0;
}

int32_t send_kesdal_logon(int32_t fd) {
    trace_in();
    return send_kesdal(fd, KESDAL_LOGON);
}

int32_t send_kesdal_logoff(int32_t fd) {
    trace_in();
    return send_kesdal(fd, KESDAL_LOGOFF);
}

int32_t recv_kesdal(int32_t fd) {
    trace_in();
    char answer[TEXT_BUFFER];
    int32_t length = sock_recv_text(fd, answer, sizeof answer);
    /* The terminator is no digit and no "|", so a short answer fails too. */
    return is_digit(answer[0]) && answer[1] == '|' && is_digit(answer[2])
               ? length
               : 0;
}

int32_t send_reply(int32_t fd, const char *format, ...) {
    trace_in();
    char buffer[TEXT_BUFFER];
    va_list args;
    va_start(args, format);
    vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    return sock_send_text(fd, buffer);
}

bool is_reply_header(const char *text) {
    trace_in();
    return text && strncasecmp(text, REPLY_HEADER, REPLY_HEADER_LENGTH) == 0;
}

char *get_key_value(const char *text, const char *key, char *out, size_t size) {
    trace_in();
    if (!out || size == 0) {
        return nullptr;
    }
    out[0] = '\0';
    if (!text) {
        return nullptr;
    }
    const char *blanks = " \t";
    const char *word = text + strspn(text, blanks);
    /* A word that only begins with the key is good enough. */
    while (*word && strncmp(word, key, strlen(key)) != 0) {
        word += strcspn(word, blanks);
        word += strspn(word, blanks);
    }
    const char *value = *word ? strchr(word, '=') : nullptr;
    size_t length = value ? strcspn(++value, blanks) : 0;
    if (length == 0) {
        return nullptr;
    }
    strncat(out, value, std::min(length, size - 1));
    return out;
}

int32_t map_remote_status(int32_t status) {
    trace_in();
    if (status < 0) {
        status = 1;
    }
    if (status >= 1 && status <= 127) {
        status += 127;
    }
    return std::min(status, 255);
}
