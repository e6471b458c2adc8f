/*
 * A command line in, and what it came to: the call of a mode with all it was
 * given, or the line that refused it. The modes are replaced by functions that
 * write down their arguments, so this goes into one file of each program.
 */
#ifndef TESTS_UNIT_CMDLINE_FIXTURE_H
#define TESTS_UNIT_CMDLINE_FIXTURE_H

#include "sessions.h"

#include "tolva2/net/address.h"
#include "tolva2/start/cmdline.h"
#include "tolva2/start/mode_init.h"

#include <netdb.h>

using namespace std::string_literals;

/* No test asks the network. */
extern "C" hostent *gethostbyname(const char *) { return nullptr; }

namespace {

std::string called; /* with which arguments the mode was called */
int32_t result_of_mode = 0;

void show(const char *name, int32_t value, int32_t not_given) {
    if (value != not_given) {
        called += std::string(" ") + name + "=" + std::to_string(value);
    }
}

void show(const char *name, const char *value) {
    if (value != nullptr) {
        called += std::string(" ") + name + "=[" + value + "]";
    }
}

/* "text:port/kind/mode", in order. */
void show(const char *name, const ux_list *list) {
    if (list->size == 0) {
        return;
    }
    called += std::string(" ") + name + "=";
    for (const ux_list_element *node = list->head; node; node = node->next) {
        const inetaddr *one = static_cast<inetaddr *>(node->data);
        called += node == list->head ? "" : ",";
        called += std::string(one->text) + ":" + std::to_string(one->port) +
                  "/" + std::to_string(one->kind) + "/" +
                  std::to_string(one->mode);
    }
}

} // namespace

int32_t init_receiver(ux_text cfgfile, const char *listen_host, int32_t port,
                      int32_t check_port, ux_list *peers, ux_list *servers,
                      ux_list *redundant, int32_t retries,
                      ux_text shutdown_prog, ux_text alive_prog,
                      int32_t timeout, int32_t check_interval) {
    called = "listen";
    show("cfgfile", cfgfile.get());
    show("host", listen_host);
    show("port", port, 0);
    show("check_port", check_port, 0);
    show("peers", peers);
    show("servers", servers);
    show("redundant", redundant);
    show("retries", retries, -1);
    show("shutdown", shutdown_prog.get());
    show("alive", alive_prog.get());
    show("timeout", timeout, -1);
    show("interval", check_interval, -1);
    return result_of_mode;
}

int32_t init_sender(const ux_list *addresses, int32_t port, int32_t timeout,
                    const char *command) {
    called = "send";
    show("to", addresses);
    show("port", port, -1);
    show("timeout", timeout, -1);
    show("command", command);
    return result_of_mode;
}

namespace {

using words = std::vector<std::string>;

/* check_input with arguments that may be cut up. */
int32_t run(const std::string &program, words arguments) {
    program_name name(program);
    arguments.insert(arguments.begin(), "/any/path/" + program);
    std::vector<char *> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string &one : arguments) {
        argv.push_back(one.data());
    }
    argv.push_back(nullptr);
    called.clear();
    return check_input({argv.data(), arguments.size()});
}

std::string joined(const std::string &program, const words &arguments) {
    std::string text = program;
    for (const std::string &one : arguments) {
        text += " [" + one + "]";
    }
    return text;
}

struct accepted_row {
    const char *program;
    words arguments;
    std::string call;
};

void check_accepted(const std::vector<accepted_row> &rows) {
    for (const accepted_row &row : rows) {
        SCOPED_TRACE(joined(row.program, row.arguments));
        /* In a child first: an error would end the process. */
        ending end = in_child([&] { run(row.program, row.arguments); });
        ASSERT_EQ(end.status, 99) << end.err;
        EXPECT_EQ(end.err, "");
        result_of_mode = 42;
        EXPECT_EQ(run(row.program, row.arguments), 42);
        EXPECT_EQ(called, row.call);
    }
}

struct refused_row {
    const char *program;
    words arguments;
    std::string message; /* behind "program: " */
};

void check_refused(const std::vector<refused_row> &rows) {
    for (const refused_row &row : rows) {
        SCOPED_TRACE(joined(row.program, row.arguments));
        ending end = in_child([&] { run(row.program, row.arguments); });
        EXPECT_EQ(end.status, 1);
        EXPECT_EQ(end.err, std::string(row.program) + ": " + row.message);
        EXPECT_EQ(end.out, "");
    }
}

const std::string no_peers =
    "missing address parameter: `-a <host[:port]>'! (-? for help).\n";
const std::string no_servers =
    "missing address parameter: `-ac <host[:port]>'! (-? for help).\n";

} // namespace

#endif
