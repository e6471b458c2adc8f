#include "life.h"
#include "calls.h"
#include "model.h"
#include "world.h"

#include "tolva2/base/process_state.h"
#include "tolva2/base/trace.h"
#include "tolva2/files/logfile.h"
#include "tolva2/files/msgdb.h"
#include "tolva2/listen/tolva_receive.h"
#include "tolva2/net/address.h"

namespace simulate {

namespace {

/* As start-up fills it. */
void fill(receiver_params *settings, const day_settings &chosen) {
    auto text = [](const std::string &from) {
        return from.empty() ? ux_text() : ux_copy(from.c_str());
    };
    settings->listen_address = ux_copy("0.0.0.0");
    settings->listenport = LISTEN_PORT;
    settings->listen_timeout = chosen.listen_timeout;
    settings->listen_udp = text(chosen.listen_udp);
    settings->allowed_addresses = text(chosen.senders_named ? "named" : "");
    settings->kesdalport = SERVER_PORT;
    settings->alive_interval = chosen.alive_interval;
    settings->alive_retries = chosen.alive_retries;
    settings->shutdown_prog = text(chosen.shutdown_prog);
    settings->alive_prog = text(chosen.alive_prog);
    settings->exec_prog = text(chosen.exec_prog);
    settings->msg_prog = text(chosen.msg_prog);
    settings->mail_prog = text(chosen.mail_prog);
    settings->redundancy_enabled = text(chosen.redundancy);
    settings->redundancy_batch_file = text(chosen.batch_file);
    settings->redundancy_batch_suppress =
        ux_copy(chosen.batch_suppress ? "true" : "no");
    settings->redundancy_level = chosen.level;
}

void append(ux_list *list, uint32_t address, int port, address_kind kind) {
    ux_owner<inetaddr> one =
        new_inetaddr(dotted(address).c_str(), static_cast<uint16_t>(port), kind,
                     MODE_LISTEN);
    if (!one || ux_list_ins_next(list, list->tail, one.release()) != 0) {
        fail("the lists of addresses could not be made");
    }
}

struct address_lists {
    ux_list allowed, alive, redundancy;
};

void fill(address_lists *lists, const day_settings &chosen) {
    for (ux_list *one : {&lists->allowed, &lists->alive, &lists->redundancy}) {
        ux_list_init(one, destroy_inetaddr);
    }
    for (uint32_t one : chosen.allowed) {
        append(&lists->allowed, one, 0, ADDR_PEER);
    }
    for (const watched_server &one : chosen.servers) {
        append(&lists->alive, one.address, one.port, ADDR_KESDAL);
    }
    for (uint32_t one : chosen.members) {
        append(&lists->redundancy, one, 0, ADDR_PEER);
    }
}

__attribute__((noinline)) int32_t run_listener(const day_settings &chosen) {
    receiver_params settings;
    address_lists lists{};
    fill(&settings, chosen);
    fill(&lists, chosen);
    progname = "tolva";
    max_fds = chosen.max_fds;
    debug_level = chosen.debug_level;
    daemonized = chosen.log == log_target::nowhere;
    if (chosen.log == log_target::file &&
        !logfile_open(LOG_NAME, chosen.log_kib)) {
        fail("no log");
    }
    log_into_file(chosen.log == log_target::file);
    log_as(4711);
    if (!msgdb_open(TEXTS_NAME)) {
        fail("no texts");
    }
    listener_stack_begins(__builtin_frame_address(0));
    int64_t before = here->blocks;
    int32_t running =
        recv_mode(&settings, &lists.allowed, &lists.alive, &lists.redundancy);
    if (here->blocks != before) {
        fail(std::to_string(here->blocks - before) + " blocks are lost");
    }
    ux_list_destroy(&lists.allowed);
    ux_list_destroy(&lists.alive);
    ux_list_destroy(&lists.redundancy);
    logfile_close();
    msgdb_close();
    return running;
}

/* As it was in the morning. */
void check_evening(int32_t running) {
    if (here->blocks != 0) {
        fail(std::to_string(here->blocks) + " blocks are left");
    }
    for (size_t fd = 0; fd < here->table.size(); fd++) {
        holds what = here->table[fd].what;
        if (what != holds::nothing && what != holds::inherited) {
            fail("descriptor " + std::to_string(fd) + " is left open");
        }
    }
    if (here->stopping && running != 0) {
        fail("a stop signal came, and the listener says it runs on");
    }
    for (const auto &[pid, one] : here->children) {
        if (here->stopping && one.ended) {
            fail("child " + std::to_string(pid) + " was never collected");
        }
    }
}

} // namespace

void live_through(const day_plan &plan) {
    here->tell("the listener starts");
    int32_t running = run_listener(plan.settings);
    check_evening(running);
    model(plan, here->facts).run();
}

} // namespace simulate
