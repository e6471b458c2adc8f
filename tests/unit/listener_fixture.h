/*
 * A listener as its modules see it, without its loop: settings with scripts
 * that leave a trace, the lists, the log and the texts.
 */
#ifndef TESTS_UNIT_LISTENER_FIXTURE_H
#define TESTS_UNIT_LISTENER_FIXTURE_H

#include "address_list.h"
#include "sessions.h"

#include "tolva2/files/settings.h"
#include "tolva2/listen/redundancy.h"

#include <string>

class listener {
  public:
    listener() {
        settings = receiver_params{};
        settings.listenport = 6003;
        settings.shutdown_prog = text("exit 0;");
        settings.exec_prog = text("exit 1;");
        settings.msg_prog = text("exit 2;");
        settings.mail_prog = text("exit 3;");
        rp = &settings;
        init_redundant_shutdowns(&settings, members.get());
    }
    ~listener() {
        /* Scripts that a test has not collected. */
        for (const ux_list *list : {clients, connections}) {
            for (const connection *cn : records(list)) {
                if (cn != nullptr && cn->busy && cn->pid > 0) {
                    waitpid(cn->pid, nullptr, 0);
                }
            }
        }
        rp = nullptr;
    }
    listener(const listener &) = delete;
    listener &operator=(const listener &) = delete;

    /* A text for a setting. */
    static ux_text text(const std::string &content) {
        return ux_copy(content.c_str());
    }
    /* Redundant senders, level 1, with a harmless batch file. */
    void make_redundant(const char *addresses, int32_t level) {
        settings.redundancy_enabled = text("TRUE");
        settings.redundancy_batch_file = text("exit 4;");
        settings.redundancy_level = level;
        get_inetaddr_arr_from_str(members.get(), addresses, ADDR_PEER,
                                  MODE_LISTEN);
        init_redundant_shutdowns(&settings, members.get());
    }
    operator_log log;
    session_lists lists;
    receiver_params settings;

  private:
    address_list members;
};

#endif
