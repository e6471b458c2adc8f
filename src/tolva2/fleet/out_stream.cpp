/*
 * Writing as much as there is room for. A pipe that can be written to has room
 * for a piece of this size, so the write does not wait though the descriptor
 * is not non-blocking: it is shared with others, and stays as they have it.
 */
#include "tolva2/fleet/out_stream.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <unistd.h>

namespace {

constexpr size_t PIECE = 4096;
constexpr size_t WORTH_MOVING = 65536;

bool is_writable(int fd) {
    pollfd one{fd, POLLOUT, 0};
    return poll(&one, 1, 0) == 1;
}

std::string_view next_piece(const out_stream &out) {
    std::string_view rest = part_of(out.waiting.view(), out.written);
    std::string_view piece = part_of(rest, 0, PIECE);
    size_t line = piece.rfind('\n');
    return line == std::string_view::npos ? piece : part_of(piece, 0, line + 1);
}

/* Forgets what is out, now and then: it is moved about for that. */
void forget_written(out_stream *out) {
    if (out->written == out->waiting.length || out->written > WORTH_MOVING) {
        drop_front(&out->waiting, out->written);
        out->written = 0;
    }
}

} // namespace

out_stream open_out(int fd) {
    out_stream out;
    out.fd = fd;
    out.terminal = isatty(fd) == 1;
    return out;
}

size_t left_to_write(const out_stream &out) {
    return out.error == 0 ? out.waiting.length - out.written : 0;
}

bool has_waiting(const out_stream &out) { return left_to_write(out) > 0; }

void write_waiting(out_stream *out) {
    while (has_waiting(*out) && is_writable(out->fd)) {
        std::string_view piece = next_piece(*out);
        ssize_t length = write(out->fd, piece.data(), piece.size());
        if (length < 0 && (errno == EAGAIN || errno == EINTR)) {
            break;
        }
        if (length < 0) {
            out->error = errno;
        } else {
            out->written += static_cast<size_t>(length);
        }
    }
    forget_written(out);
}
