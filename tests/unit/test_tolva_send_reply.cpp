/* The reply to a request with status, and how connections end. */
#include "sender_fixture.h"

using namespace sender;

TEST(do_rcv_tolva, takes_the_status_of_a_reply) {
    struct row {
        const char *text; /* behind the header */
        int32_t status;
    };
    const row rows[] = {
        {" COMMAND= PID=0 EXITSTATUS=0", 0},
        {" COMMAND=x PID=1 EXITSTATUS=1", 128},
        {" COMMAND=x PID=1 EXITSTATUS=3", 130},
        {" COMMAND=x PID=1 EXITSTATUS=127", 254},
        {" COMMAND=x PID=1 EXITSTATUS=128", 128},
        {" COMMAND=x PID=1 EXITSTATUS=200", 200},
        {" COMMAND=x PID=1 EXITSTATUS=255", 255},
        {" COMMAND=x PID=1 EXITSTATUS=300", 255},
        {" COMMAND=x PID=1 EXITSTATUS=-1", 128},
        {" COMMAND=x PID=1 EXITSTATUS=x", 0},
        {" COMMAND=x PID=1 EXITSTATUS=", 128},
        {" COMMAND=x PID=1", 128},
        {"", 128},
        {" EXITSTATUS=99999999999", 255},
        {" EXITSTATUS=0000000000000000000005", 0},
        {" EXITSTATUSX=5", 132},
        {" exitstatus=5", 128},
    };
    for (const row &one : rows) {
        SCOPED_TRACE(one.text);
        conversation talk("x", MODE_SEND_STATUS);
        talk.await_reply();
        talk.reply(reply_header + one.text);
        EXPECT_TRUE(talk.is_gone());
        EXPECT_FALSE(run.failed);
        EXPECT_EQ(run.remote_status, one.status);
        std::string shown = one.text;
        shown = shown.empty() ? shown : shown.substr(1);
        EXPECT_EQ(talk.log.lines(), log_lines{"server[127.0.0.1]: " + shown});
    }
}

TEST(do_rcv_tolva, reads_a_header_in_any_case) {
    conversation talk("x", MODE_SEND_STATUS);
    talk.await_reply();
    talk.reply("connect to tolva (reply)|EXITSTATUS=7");
    EXPECT_FALSE(run.failed);
    EXPECT_EQ(talk.log.lines(), log_lines{"server[127.0.0.1]: EXITSTATUS=7"});
    /* The byte behind the header is no part of the text. */
    EXPECT_EQ(run.remote_status, 134);
}

TEST(do_rcv_tolva, the_last_reply_counts) {
    struct row {
        int32_t before;
        std::string reply;
        int32_t after;
    };
    for (const row &one :
         {row{255, status_reply(0), 0}, row{0, status_reply(3), 130},
          row{200, reply_header + " no status", 200}}) {
        conversation talk("x", MODE_SEND_STATUS);
        talk.await_reply();
        run.remote_status = one.before;
        talk.reply(one.reply);
        EXPECT_EQ(run.remote_status, one.after);
    }
}

TEST(do_rcv_tolva, anything_but_a_reply_is_a_failure) {
    for (const char *bad :
         {"CONNECT TO TOLVA (SEND)", "x", "CONNECT TO TOLVA (REPLY", "\n"}) {
        conversation talk("x", MODE_SEND_STATUS);
        talk.await_reply();
        talk.reply(bad);
        EXPECT_TRUE(talk.is_gone());
        EXPECT_TRUE(run.failed);
        EXPECT_EQ(run.remote_status, -1);
        EXPECT_EQ(talk.log.lines(), log_lines{message(819, {})});
    }
}

TEST(do_rcv_tolva, a_listener_that_closes_is_a_failure) {
    conversation talk("x", MODE_SEND_STATUS);
    talk.await_reply();
    talk.pair.far.reset();
    ASSERT_TRUE(wait_for(talk.number, POLLIN));
    do_rcv_tolva(connections->head, EVENT_READABLE);
    EXPECT_TRUE(talk.is_gone());
    EXPECT_TRUE(run.failed);
    EXPECT_EQ(talk.log.lines(), log_lines{message(819, {})});
}

TEST(do_rcv_tolva, a_socket_error_is_logged) {
    conversation talk("x", MODE_SEND_STATUS);
    talk.await_reply();
    reset_connection(&talk.pair.far);
    ASSERT_TRUE(wait_for(talk.number, POLLIN));
    do_rcv_tolva(connections->head, EVENT_READABLE);
    EXPECT_TRUE(talk.is_gone());
    EXPECT_TRUE(run.failed);
    EXPECT_EQ(talk.log.lines(), log_lines{system_line(ECONNRESET)});
}

TEST(do_rcv_tolva, a_receive_that_fails_is_logged) {
    conversation talk("x", MODE_SEND_STATUS);
    talk.await_reply();
    do_rcv_tolva(connections->head, EVENT_READABLE);
    EXPECT_TRUE(talk.is_gone());
    EXPECT_TRUE(run.failed);
    EXPECT_EQ(talk.log.lines(), log_lines{system_line(EAGAIN)});
}

TEST(do_rcv_tolva, needs_a_readable_socket_of_the_right_kind) {
    struct row {
        mode_code mode;
        address_kind type;
        event_bits events;
    };
    const row rows[] = {
        {MODE_SEND_STATUS, ADDR_PEER, EVENT_NONE},
        {MODE_SEND_STATUS, ADDR_PEER, EVENT_WRITABLE},
        {MODE_SEND, ADDR_PEER, EVENT_READABLE},
        {MODE_CHECK, ADDR_PEER, EVENT_READABLE},
        {MODE_SEND_STATUS, ADDR_BROADCAST, EVENT_READABLE},
        {MODE_SEND_STATUS, ADDR_KESDAL, EVENT_READABLE},
    };
    for (const row &one : rows) {
        conversation talk("x", one.mode, one.type);
        talk.await_reply();
        send_bytes_to(talk.pair.far.get(), status_reply(0));
        ASSERT_TRUE(wait_for(talk.number, POLLIN));
        do_rcv_tolva(connections->head, one.events);
        EXPECT_TRUE(talk.is_gone());
        EXPECT_TRUE(run.failed);
        EXPECT_EQ(run.remote_status, -1);
        EXPECT_EQ(talk.log.lines(), log_lines{error_line(EINVAL)});
    }
}

TEST(do_rcv_tolva, reads_at_most_4095_bytes) {
    std::string text = reply_header + " COMMAND=" + std::string(4049, 'c');
    struct row {
        const char *end;
        int32_t status;
    };
    /* The last two digits of 200 are cut. */
    for (const row &one :
         {row{" EXITSTATUS=9", 136}, row{" EXITSTATUS=200", 129}}) {
        conversation talk("x", MODE_SEND_STATUS);
        talk.await_reply();
        talk.reply(text + one.end);
        EXPECT_FALSE(run.failed);
        EXPECT_EQ(run.remote_status, one.status);
    }
}

TEST(do_rcv_tolva, traces_what_it_sees) {
    conversation talk("x", MODE_SEND_STATUS);
    talk.await_reply();
    std::string seen = traced(1, [&] { talk.reply(status_reply(3)); });
    EXPECT_EQ(seen, "DEBUG: event = 2 \nDEBUG: cn->mode = 3 \n"
                    "DEBUG: cn->type = 1 \nDEBUG: err = 0 \n"
                    "DEBUG: arg= [server[%s]: %s]\nDEBUG: value = [3]\n"
                    "DEBUG: remote_status = [3]\nDEBUG: nconnections = 0 \n");
}

TEST(do_rcv_tolva_death, needs_a_record_when_readable) {
    ux_list_element node{nullptr, nullptr, nullptr};
    EXPECT_DEATH(do_rcv_tolva(&node, EVENT_READABLE), "`cn'");
}

TEST(endings, log_by_type) {
    struct row {
        address_kind type;
        std::string cancelled;
        std::string ended;
    };
    const row rows[] = {
        {ADDR_PEER, message(753, {"127.0.0.1"}), message(787, {"127.0.0.1"})},
        {ADDR_BROADCAST, message(810, {}), message(787, {"127.0.0.1"})},
        {ADDR_KESDAL, message(828, {"127.0.0.1"}), message(814, {"127.0.0.1"})},
        {NO_KIND, error_line(EINVAL), message(787, {"127.0.0.1"})},
    };
    for (const row &one : rows) {
        {
            conversation talk("x", MODE_SEND, one.type);
            cancel_connect(connections->head);
            EXPECT_TRUE(talk.is_gone());
            EXPECT_TRUE(run.failed);
            EXPECT_EQ(talk.log.lines(), log_lines{one.cancelled});
        }
        {
            conversation talk("x", MODE_SEND, one.type);
            end_connect(connections->head);
            EXPECT_TRUE(talk.is_gone());
            EXPECT_FALSE(run.failed);
            EXPECT_EQ(talk.log.lines(), log_lines{one.ended});
        }
    }
}
