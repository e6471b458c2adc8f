/* What an answer comes to, and the steps of a talk over real sockets. */
#include "loopback.h"

#include "tolva2/fleet/talk.h"

#include <string>

namespace {

verdict judge(std::string_view answer, bool final = false) {
    std::string text(answer);
    return judge_answer(text.c_str(), text.size(), final);
}

/* What is said of an answer: "outcome status", or with "-". */
std::string said(std::string_view answer, bool final = false) {
    verdict found = judge(answer, final);
    return std::string(outcome_word(found.result)) + " " +
           (found.has_status ? std::to_string(found.status) : "-");
}

const std::string HEAD = "CONNECT TO TOLVA (REPLY)";

} // namespace

TEST(judge_answer, reads_the_status_as_the_sender_does) {
    EXPECT_EQ(said(HEAD + " COMMAND=/x PID=1 EXITSTATUS=0"), "done 0");
    EXPECT_EQ(said(HEAD + " COMMAND=/x PID=1 EXITSTATUS=3"), "failed 3");
    EXPECT_EQ(said(HEAD + " EXITSTATUS=-1"), "failed -1");
    EXPECT_EQ(said(HEAD + "\nEXITSTATUS=0"), "done 0");
    EXPECT_EQ(said(HEAD + " EXITSTATUS=0x"), "done 0");
    EXPECT_EQ(said(HEAD + " EXITSTATUS=99999999999"), "failed 2147483647");
    EXPECT_EQ(said("connect to tolva (reply) EXITSTATUS=0"), "done 0");
}

TEST(judge_answer, waits_for_the_rest_of_an_answer) {
    const std::string whole = HEAD + " COMMAND=/x PID=1 EXITSTATUS=";
    for (size_t length = 1; length <= whole.size(); length++) {
        EXPECT_EQ(said(whole.substr(0, length)), "open -") << length;
    }
}

TEST(judge_answer, an_end_makes_half_an_answer_garbage) {
    EXPECT_EQ(said("CONNECT TO TOLVA (RE", true), "garbage -");
    EXPECT_EQ(said(HEAD, true), "failed -");
    EXPECT_EQ(said(HEAD + " COMMAND=/x EXITSTATUS=", true), "failed -");
}

TEST(judge_answer, shows_garbage_in_a_safe_form) {
    verdict found = judge("HTTP/1.0\nserver[1.2.3.4]: EXITSTATUS=0");
    EXPECT_EQ(found.result, outcome::garbage);
    EXPECT_STREQ(found.reason,
                 "not an answer: HTTP/1.0\\x0aserver[1.2.3.4]: EXITSTATUS=0");
    EXPECT_EQ(said(std::string_view("\0\0", 2)), "garbage -");
}

TEST(open_talk, a_closed_port_is_refused) {
    ux_fd server(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address = loopback("127.0.0.1", 0);
    ASSERT_EQ(bind(server.get(), generic(&address), sizeof address), 0);
    address = local_name(server.get()); /* bound, but nobody listens */
    open_result opened = open_talk(address);
    verdict found = opened.found;
    if (found.result == outcome::open) {
        talk one;
        one.socket = std::move(opened.socket);
        ASSERT_TRUE(wait_for(one.socket.get(), POLLOUT));
        found = continue_talk(&one, "MSG_EXECSTATUS LOG_TEXT x");
    }
    EXPECT_FALSE(opened.shortage);
    EXPECT_EQ(found.result, outcome::refused);
}

TEST(continue_talk, sends_and_reads_the_answer) {
    ux_fd server(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address = loopback("127.0.0.1", 0);
    ASSERT_EQ(bind(server.get(), generic(&address), sizeof address), 0);
    ASSERT_EQ(listen(server.get(), 1), 0);
    address = local_name(server.get());
    open_result opened = open_talk(address);
    ASSERT_EQ(opened.found.result, outcome::open);
    talk one;
    one.socket = std::move(opened.socket);
    ux_fd peer(accept(server.get(), nullptr, nullptr));
    ASSERT_TRUE(wait_for(one.socket.get(), POLLOUT));
    EXPECT_EQ(continue_talk(&one, "MSG_EXECSTATUS LOG_TEXT x").result,
              outcome::open);
    EXPECT_EQ(one.stage, talk_stage::answering);
    char request[200] = "";
    ASSERT_TRUE(wait_for(peer.get(), POLLIN));
    EXPECT_GT(recv(peer.get(), request, sizeof request - 1, 0), 0);
    EXPECT_STREQ(request, "CONNECT TO TOLVA (SEND) MSG_EXECSTATUS LOG_TEXT x");
    for (const std::string &piece : {HEAD + " COMMAND=", std::string("/x EXIT"),
                                     std::string("STATUS=5")}) {
        EXPECT_EQ(one.length == 0 || one.answer, true);
        ASSERT_EQ(send(peer.get(), piece.data(), piece.size(), 0),
                  static_cast<ssize_t>(piece.size()));
        ASSERT_TRUE(wait_for(one.socket.get(), POLLIN));
        verdict found = continue_talk(&one, "");
        EXPECT_EQ(found.result,
                  piece == "STATUS=5" ? outcome::failed : outcome::open);
        EXPECT_EQ(found.status, piece == "STATUS=5" ? 5 : 0);
    }
}

TEST(expire_talk, says_what_was_waited_for) {
    talk one;
    EXPECT_EQ(expire_talk(one).result, outcome::unreachable);
    one.stage = talk_stage::answering;
    EXPECT_EQ(expire_talk(one).result, outcome::timeout);
    one.stage = talk_stage::hanging_up;
    EXPECT_EQ(expire_talk(one).result, outcome::closed);
}
