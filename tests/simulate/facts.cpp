/*
 * Facts as lines that a human can follow.
 */
#include "facts.h"

#include <cstring>
#include <iterator>

namespace simulate {

namespace {

const char *const NAMES[] = {
    "",
    "signal",
    "wait",
    "waited",
    "accept",
    "receive",
    "datagram",
    "send",
    "SO_ERROR",
    "poll",
    "socket",
    "fcntl fails",
    "setsockopt fails",
    "bind",
    "listen",
    "connect",
    "shutdown",
    "fork",
    "waitpid",
    "no memory",
    "no reserve",
    "opened",
    "open fails",
    "copy of the log",
    "no room for it",
    "log is gone",
    "log",
    "log is cut",
    "stdout",
    "stderr",
};
static_assert(std::size(NAMES) == static_cast<size_t>(act::said) + 1);

std::string set_text(const char *name, const std::vector<int> &numbers) {
    std::string text;
    for (int one : numbers) {
        text += " " + std::to_string(one);
    }
    return text.empty() ? text : std::string(name) + text;
}

std::string quoted(const std::string &text) {
    const size_t most = 160;
    std::string shown = " [";
    for (char one : text.substr(0, most)) {
        shown += one < ' ' || one > '~' ? '.' : one;
    }
    return shown + (text.size() > most ? "...]" : "]");
}

} // namespace

std::string describe(const fact &one) {
    char time[64];
    snprintf(time, sizeof time, "%12.6f  ", static_cast<double>(one.at) / 1e6);
    if (one.what == act::outside) {
        return time + ("                " + one.text);
    }
    std::string text = time;
    text += NAMES[static_cast<size_t>(one.what)];
    if (one.who != 0) {
        text += " #" + std::to_string(one.who);
    }
    if (one.what == act::wait) {
        text += one.limit < 0 ? " without limit"
                              : " " + std::to_string(one.limit) + " s";
        text += ", " + std::to_string(one.sockets) + " sockets, " +
                std::to_string(one.blocks) + " blocks";
    } else {
        text += " = " + std::to_string(one.result);
    }
    text +=
        set_text(", read:", one.readable) + set_text(", write:", one.writable);
    if (one.error != 0) {
        text += std::string(" (") + strerror(one.error) + ")";
    }
    if (one.peer != 0) {
        text += " peer ." + std::to_string(one.peer & 255U);
    }
    if (one.what == act::collect) {
        text += " status " + std::to_string(one.limit);
    }
    return one.text.empty() ? text : text + quoted(one.text);
}

} // namespace simulate
