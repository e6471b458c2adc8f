/*
 * A listener as its modules see it, without its loop: settings with scripts
 * that leave a trace, the lists, the log and the texts.
 */
#ifndef TESTS_UNIT_LISTENER_FIXTURE_H
#define TESTS_UNIT_LISTENER_FIXTURE_H

#include "sessions.h"

#include "tolva2/files/settings.h"
#include "tolva2/listen/redundancy.h"

#include <cstdlib>

class listener
{
  public:
    listener()
    {
        settings = receiver_params{};
        settings.listenport = 6003;
        settings.shutdown_prog = text("exit 0;");
        settings.exec_prog = text("exit 1;");
        settings.msg_prog = text("exit 2;");
        settings.mail_prog = text("exit 3;");
        rp = &settings;
        ux_list_init(&members, destroy_inetaddr);
        init_redundant_shutdowns(&settings, &members);
    }
    ~listener()
    {
        /* Scripts that a test has not collected. */
        for (const ux_list *list : {clients, connections}) {
            for (const ux_list_element *node = list->head; node;
                 node = node->next) {
                const connection *cn = session_of(node);
                if (cn != nullptr && cn->busy != 0 && cn->pid > 0) {
                    waitpid(cn->pid, nullptr, 0);
                }
            }
        }
        ux_list_destroy(&members);
        rp = nullptr;
        for (char *one : texts) {
            free(one);
        }
    }
    listener(const listener &) = delete;
    listener &operator=(const listener &) = delete;

    /* A text that lives as long as the listener. */
    char *text(const std::string &content)
    {
        texts.push_back(strdup(content.c_str()));
        return texts.back();
    }
    /* Redundant senders, level 1, with a harmless batch file. */
    void make_redundant(const char *addresses, int32_t level)
    {
        settings.redundancy_enabled = text("TRUE");
        settings.redundancy_batch_file = text("exit 4;");
        settings.redundancy_level = level;
        get_inetaddr_arr_from_str(&members, addresses, ADDR_PEER, MODE_LISTEN);
        init_redundant_shutdowns(&settings, &members);
    }
    operator_log log;
    session_lists lists;
    receiver_params settings;

  private:
    std::vector<char *> texts;
    ux_list members;
};

#endif
