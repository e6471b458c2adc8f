/* Requests: what they are recognised by, and what is in them. */
#include "sessions.h"

#include "tolva2/files/request.h"

#include <cstring>

namespace {

const std::string request = "CONNECT TO TOLVA (SEND)";
const std::string reply = "CONNECT TO TOLVA (REPLY)";

command_request parse(std::string text) { return parse_command(text.data()); }

constexpr auto NONE = command_fault::none;
constexpr auto NOT_UNDERSTOOD = command_fault::not_understood;
constexpr auto UNKNOWN = command_fault::unknown;

struct parse_row {
    std::string text;
    command_fault fault;
    bool wants_status;
    command_index index;
    std::string params;
};

const std::string LONG(5000, 'x');

const parse_row parse_rows[] = {
    {"MSG_EXECUTE SHUTDOWN", NONE, false, COMMAND_SHUTDOWN, ""},
    {"MSG_EXECSTATUS SHUTDOWN now", NONE, true, COMMAND_SHUTDOWN, "now"},
    {"msg_execute execute  \"backup now\" ", NONE, false, COMMAND_EXECUTE,
     "backup now"},
    {"Msg_ExecStatus Msg_Text x", NONE, true, COMMAND_MSG_TEXT, "x"},
    {" \tMSG_EXECUTE\t EXECUTE\tx", NONE, false, COMMAND_EXECUTE, "x"},
    {"MSG_EXECUTE MSG_ID 12 UPS1 45", NONE, false, COMMAND_MSG_ID,
     "UPS UPS1 at 45%s done"},
    {"MSG_EXECUTE MSG_ID 9999 x", NONE, false, COMMAND_MSG_ID, ""},
    {"MSG_EXECUTE MSG_ID", NONE, false, COMMAND_MSG_ID, ""},
    {"MSG_EXECUTE MAIL_ID 14 ops", NONE, false, COMMAND_MAIL_ID,
     "ops  \"plain\""},
    {"MSG_EXECUTE MAIL_ID 9999 ops", NONE, false, COMMAND_MAIL_ID, "ops "},
    {"MSG_EXECUTE MAIL_TEXT ops Battery low", NONE, false, COMMAND_MAIL_TEXT,
     "ops \"Battery low\""},
    /* A recipient that does not fit is none. */
    {"MSG_EXECUTE MAIL_TEXT " + LONG, NONE, false, COMMAND_MAIL_TEXT, ""},
    {"MSG_EXECUTE LOG_ID 14", NONE, false, COMMAND_LOG_ID, "plain"},
    {"MSG_EXECUTE LOG_TEXT %s \xe4\xff", NONE, false, COMMAND_LOG_TEXT,
     "%s \xe4\xff"},
    {"MSG_EXECUTE LOG_TEXT " + LONG, NONE, false, COMMAND_LOG_TEXT,
     LONG.substr(0, 4094)},
    {"", UNKNOWN, false, COMMAND_UNKNOWN, ""},
    {" ", NOT_UNDERSTOOD, false, COMMAND_UNKNOWN, ""},
    {"\n", NOT_UNDERSTOOD, false, COMMAND_UNKNOWN, ""},
    {"MSG_EXECUTE", NOT_UNDERSTOOD, false, COMMAND_UNKNOWN, ""},
    {"MSG_EXECUTE ", NOT_UNDERSTOOD, false, COMMAND_UNKNOWN, ""},
    {"MSG_EXECSTATUS \t", NOT_UNDERSTOOD, true, COMMAND_UNKNOWN, ""},
    {"SHUTDOWN", NOT_UNDERSTOOD, false, COMMAND_UNKNOWN, ""},
    {"MSG_SCAN SHUTDOWN", NOT_UNDERSTOOD, false, COMMAND_UNKNOWN, ""},
    {"MSG_EXECUTEX SHUTDOWN", NOT_UNDERSTOOD, false, COMMAND_UNKNOWN, ""},
    {"MSG_EXEC SHUTDOWN", NOT_UNDERSTOOD, false, COMMAND_UNKNOWN, ""},
    {"MSG_EXECUTE REBOOT now", UNKNOWN, false, COMMAND_UNKNOWN, ""},
    {"MSG_EXECSTATUS REBOOT", UNKNOWN, true, COMMAND_UNKNOWN, ""},
    {"MSG_EXECUTE SHUTDOWN\n", UNKNOWN, false, COMMAND_UNKNOWN, ""},
};

} // namespace

TEST(request_texts, are_what_the_other_side_expects) {
    EXPECT_EQ(request, REQUEST_HEADER);
    EXPECT_EQ(REQUEST_HEADER_LENGTH, 23u);
    EXPECT_EQ(REQUEST_TEXT_OFFSET, 24u);
    EXPECT_STREQ(VERB_EXECUTE, "MSG_EXECUTE");
    EXPECT_STREQ(VERB_EXECSTATUS, "MSG_EXECSTATUS");
    EXPECT_STREQ(VERB_SCAN, "MSG_SCAN");
}

TEST(classify_request, tells_bare_requests_from_commands) {
    struct row {
        std::string text;
        int32_t kind;
    };
    const row rows[] = {
        {request, REQUEST_V1},
        {"connect to tolva (send)", REQUEST_V1},
        {"Connect To Tolva (Send)", REQUEST_V1},
        {request + " MSG_EXECUTE SHUTDOWN", REQUEST_V2},
        {"connect to tolva (send) x", REQUEST_V2},
        {request + "\n", REQUEST_V2},
        {request + " ", REQUEST_V2},
        {request + "\r\n", REQUEST_V2},
        {request + "XMSG_EXECUTE LOG_TEXT hello", REQUEST_V2},
        {request + "\xff", REQUEST_V2},
        {request.substr(0, 22), REQUEST_NONE},
        {"", REQUEST_NONE},
        {" " + request, REQUEST_NONE},
        {"CONNECT TO TOLVA (SENT)", REQUEST_NONE},
        {"CONNECT  TO TOLVA (SEND)", REQUEST_NONE},
        {reply, REQUEST_NONE},
        {"GET / HTTP/1.0\r\n\r\n", REQUEST_NONE},
        {std::string(4095, 'C'), REQUEST_NONE},
    };
    for (const row &one : rows) {
        EXPECT_EQ(classify_request(one.text.c_str()), one.kind) << one.text;
    }
    EXPECT_EQ(classify_request(nullptr), REQUEST_NONE);
    EXPECT_EQ(REQUEST_NONE, 0);
    EXPECT_EQ(REQUEST_V1, 1);
    EXPECT_EQ(REQUEST_V2, 2);
}

TEST(parse_command, takes_a_text_apart) {
    operator_log log;
    for (const parse_row &row : parse_rows) {
        SCOPED_TRACE("[" + row.text.substr(0, 60) + "]");
        const command_request parsed = parse(row.text);
        EXPECT_EQ(parsed.fault, row.fault);
        EXPECT_EQ(parsed.wants_status, row.wants_status);
        EXPECT_EQ(parsed.index, row.index);
        EXPECT_EQ(parsed.params, row.params);
    }
    EXPECT_EQ(log.lines(), std::vector<std::string>{}) << "nothing is logged";
}

TEST(parse_command, without_text_knows_no_command) {
    const command_request parsed = parse_command(nullptr);
    EXPECT_EQ(parsed.fault, UNKNOWN);
    EXPECT_FALSE(parsed.wants_status);
    EXPECT_EQ(parsed.index, COMMAND_UNKNOWN);
    EXPECT_STREQ(parsed.params, "");
}

TEST(parse_command, needs_no_texts_of_messages) {
    EXPECT_STREQ(parse("MSG_EXECUTE MSG_ID 14").params, "");
    EXPECT_STREQ(parse("MSG_EXECUTE MAIL_ID 14 ops").params, "ops ");
}

TEST(parse_command, shows_each_step) {
    auto steps = [](const char *text) {
        return traced(1, [&] { static_cast<void>(parse(text)); });
    };
    EXPECT_EQ(traced(1, [] { static_cast<void>(parse_command(nullptr)); }),
              "DEBUG: tolvamsg = [NULL]\n");
    EXPECT_EQ(steps(""), "DEBUG: tolvamsg = []\n");
    EXPECT_EQ(steps(" "), "DEBUG: tolvamsg = [ ]\n");
    EXPECT_EQ(steps("MSG_SCAN x"),
              "DEBUG: tolvamsg = [MSG_SCAN x]\nDEBUG: ptr1 = [MSG_SCAN]\n");
    EXPECT_EQ(steps("MSG_EXECUTE"),
              "DEBUG: tolvamsg = [MSG_EXECUTE]\nDEBUG: ptr1 = [MSG_EXECUTE]\n");
    EXPECT_EQ(steps(" MSG_EXECUTE  EXECUTE x"),
              "DEBUG: tolvamsg = [ MSG_EXECUTE  EXECUTE x]\n"
              "DEBUG: ptr1 = [MSG_EXECUTE]\nDEBUG: ptr2 = [EXECUTE]\n"
              "DEBUG: compare = [SHUTDOWN]\nDEBUG: compare = [EXECUTE]\n"
              "DEBUG: ptr3 = [x]\n");
}

/* What is given to an unknown command is looked at before it is refused. */
TEST(parse_command, names_the_functions_that_it_asks) {
    auto entered = [](const char *text) {
        std::string all = traced(6, [&] { static_cast<void>(parse(text)); });
        std::string names;
        size_t at = 0;
        while ((at = all.find("TRACEIN: ", at)) != std::string::npos) {
            at += strlen("TRACEIN: ");
            names += all.substr(at, all.find('\n', at) - at) + " ";
        }
        return names;
    };
    EXPECT_EQ(entered("MSG_EXECUTE REBOOT"),
              "is_V2command get_V2command_params ");
    EXPECT_EQ(entered("MSG_EXECUTE LOG_TEXT x"),
              "is_V2command get_V2command_params strip_params ");
    EXPECT_EQ(entered("MSG_EXECUTE"), "");
}
