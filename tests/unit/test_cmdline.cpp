/*
 * The command line as a table: which mode is called with what, the words that
 * are no options, and the errors around them.
 */
#include "cmdline_fixture.h"
#include "failing_calls.h"

#include "tolva2/start/help.h"

namespace {

const std::string doubled =
    "doubled mode parameter: `-l' and `-s'! (-? for help).\n";
const std::string no_mode = "missing parameter: `-l' or `-s'! (-? for help).\n";

} // namespace

TEST(mode, is_chosen_by_name_or_option) {
    check_accepted({
        {"listentolva", {}, "listen"},
        {"tolva", {"-l"}, "listen"},
        {"tolva", {"-L"}, "listen"},
        {"tolva", {"-listen"}, "listen"},
        {"tolva", {"-d", "-l"}, "listen"},
        {"other", {"-l"}, "listen"},
        {"tolva",
         {"-s", "-a", "127.0.0.1"},
         "send to=127.0.0.1:0/1/2 port=6003 timeout=10"},
        {"tolva",
         {"-S", "-a", "127.0.0.1"},
         "send to=127.0.0.1:0/1/2 port=6003 timeout=10"},
        {"tolva",
         {"-se", "-a", "127.0.0.1"},
         "send to=127.0.0.1:0/1/2 port=6003 timeout=10"},
        {"tolva",
         {"-sext", "-a", "127.0.0.1"},
         "send to=127.0.0.1:0/1/2 port=6003 timeout=10"},
        {"tolva",
         {"-sr", "-a", "127.0.0.1"},
         "send to=127.0.0.1:0/1/3 port=6003 timeout=10"},
        {"tolva",
         {"-sc", "-a", "127.0.0.1"},
         "send to=127.0.0.1:0/4/4 port=5769 timeout=10 command=[MSG_SCAN]"},
        {"sendtolva",
         {"-a", "127.0.0.1"},
         "send to=127.0.0.1:0/1/2 port=6003 timeout=10"},
        /* By name the options choose no other mode. */
        {"sendtolva",
         {"-sr", "EXECUTE x", "-a", "127.0.0.1"},
         "send to=127.0.0.1:0/1/2 port=6003 timeout=10 "
         "command=[MSG_EXECUTE EXECUTE x]"},
        {"sendtolva",
         {"-l", "-a", "127.0.0.1"},
         "send to=127.0.0.1:0/1/2 port=6003 timeout=10"},
        {"listentolva", {"-l", "-l"}, "listen"},
        {"listentolva", {"-s"}, "listen"},
        /* The case of a name counts. */
        {"Listentolva", {"-l"}, "listen"},
    });
    check_refused({
        {"tolva", {}, "missing parameter! (-? for help).\n"},
        {"Sendtolva", {}, "missing parameter! (-? for help).\n"},
        {"sendtolva", {}, no_peers},
        {"tolva", {"word"}, no_mode},
        {"tolva", {"-d", "7"}, no_mode},
        {"tolva", {"-a", "127.0.0.1"}, no_mode},
        {"tolva", {"-"}, no_mode},
        {"tolva", {""}, no_mode},
        {"tolva", {"-x", "-y"}, no_mode},
        {"tolva", {"-l", "-s"}, doubled},
        {"tolva", {"-s", "-l"}, doubled},
        {"tolva", {"-l", "-L"}, doubled},
        {"tolva", {"-se", "x", "-sr", "x"}, doubled},
        {"tolva", {"-l", "-s", "-v"}, doubled},
        {"tolva", {"-l", "-sx"}, doubled},
        {"tolva", {"-sx"}, "unknown parameter: `-sx' (-? for help).\n"},
        {"tolva", {"-sR"}, "unknown parameter: `-sR' (-? for help).\n"},
        {"tolva", {"-sE"}, "unknown parameter: `-sE' (-? for help).\n"},
        {"tolva", {"-sx", "-v"}, "unknown parameter: `-sx' (-? for help).\n"},
        {"tolva", {"-s\xe4"}, "unknown parameter: `-s\xe4' (-? for help).\n"},
    });
}

TEST(mode, help_and_version_end_with_status_0) {
    program_name name("tolva");
    capture output;
    help();
    std::string help_text = output.text();
    capture banner;
    version();
    std::string version_text = banner.text();
    EXPECT_NE(help_text, "");
    EXPECT_NE(version_text, "");
    EXPECT_NE(help_text, version_text);
    struct row {
        words arguments;
        std::string out;
    };
    const std::vector<row> rows = {
        {{"-?"}, help_text},
        {{"-h"}, help_text},
        {{"-H"}, help_text},
        {{"-help"}, help_text},
        {{"-v"}, version_text},
        {{"-V"}, version_text},
        {{"-v", "-l", "-s"}, version_text},
        {{"-l", "-v", "-s"}, version_text},
        {{"-h", "-v"}, help_text},
        {{"-v", "-h"}, version_text},
        {{"-l", "-zzz", "-?"}, help_text},
        {{"word", "-v"}, version_text},
    };
    for (const row &one : rows) {
        SCOPED_TRACE(joined("tolva", one.arguments));
        ending end = in_child([&] { run("tolva", one.arguments); });
        EXPECT_EQ(end.status, 0);
        EXPECT_EQ(end.out, one.out);
        EXPECT_EQ(end.err, "");
    }
}

TEST(mode, by_name_help_and_version_are_unknown) {
    for (const char *program : {"sendtolva", "listentolva"}) {
        for (const char *option : {"-?", "-h", "-v", "-V", "-help"}) {
            check_refused(
                {{program,
                  {option},
                  "unknown parameter: `"s + option + "' (-? for help).\n"}});
        }
    }
}

TEST(scan_mode, gives_the_mode_alone) {
    program_name name("tolva");
    struct row {
        const char *option;
        int32_t mode;
    };
    const row rows[] = {
        {"-l", 1},  {"-s", 2}, {"-se", 2}, {"-sr", 3},  {"-sc", 4},
        {"-L", 1},  {"-S", 2}, {"-x", 0},  {"word", 0}, {"-", 0},
        {"--l", 0}, {"", 0},   {"l", 0},
    };
    for (const row &one : rows) {
        std::string program = "tolva";
        std::string option = one.option;
        char *argv[] = {program.data(), option.data(), nullptr};
        EXPECT_EQ(scan_mode({argv, 2}), one.mode) << one.option;
        /* The program's own word is not looked at. */
        EXPECT_EQ(scan_mode({argv + 1, 1}), 0);
    }
}

TEST(command, is_joined_behind_its_verb) {
    const std::string to = "send to=127.0.0.1:0/1/2 port=6003 timeout=10";
    const std::string status = "send to=127.0.0.1:0/1/3 port=6003 timeout=10";
    check_accepted({
        {"tolva",
         {"-s", "SHUTDOWN", "-a", "127.0.0.1"},
         to + " command=[MSG_EXECUTE SHUTDOWN]"},
        {"tolva",
         {"-a", "127.0.0.1", "-se", "EXECUTE backup  now"},
         to + " command=[MSG_EXECUTE EXECUTE backup  now]"},
        {"tolva",
         {"-sr", "EXECUTE %s\xe4", "-a", "127.0.0.1"},
         status + " command=[MSG_EXECSTATUS EXECUTE %s\xe4]"},
        {"tolva",
         {"-s", "", "-a", "127.0.0.1"},
         to + " command=[MSG_EXECUTE ]"},
        {"tolva", {"-sr", "-a", "127.0.0.1"}, status},
        {"tolva",
         {"-s", std::string(5000, 'x'), "-a", "127.0.0.1"},
         to + " command=[MSG_EXECUTE " + std::string(5000, 'x') + "]"},
        {"sendtolva",
         {"-s", "A", "-s", "B", "-s", "-a", "127.0.0.1"},
         to + " command=[MSG_EXECUTE B]"},
    });
    const std::string no_command =
        "no \"command\" parameter possible in send-mode(kesdal): `-sc' (-? for help).\n";
    check_refused({
        {"tolva", {"-sc", "SHUTDOWN", "-a", "127.0.0.1"}, no_command},
        {"tolva", {"-sc", ""}, no_command},
        {"listentolva", {"-s", "SHUTDOWN"}, no_command},
    });
}

TEST(numbers, the_least_that_a_sender_may_be_given_counts) {
    const std::string to = "send to=127.0.0.1:0/1/2 ";
    const std::string command = " command=[MSG_EXECUTE x]";
    check_accepted({
        {"tolva",
         {"-s", "x", "-a", "127.0.0.1", "-p", "1", "-t", "0"},
         to + "port=1 timeout=0" + command},
    });
}

TEST(plain_words, are_the_shutdown_script_of_listen_mode) {
    check_accepted({
        /* The first one goes, the others are run together. */
        {"tolva",
         {"-l", "x", "/opt/a.sh", "arg"},
         "listen shutdown=[/opt/a.sharg]"},
        {"tolva", {"-l", "x"}, "listen"},
        {"tolva", {"-l", ""}, "listen"},
        {"tolva", {"-l", "x", ""}, "listen shutdown=[]"},
        {"tolva",
         {"-l", "x", "-p", "7000", "-q"},
         "listen shutdown=[-p7000-q]"},
        {"tolva",
         {"-l", "-p", "1", "x", "a b", "", "c"},
         "listen port=1 shutdown=[a bc]"},
        {"listentolva", {"x", "-s", "-l"}, "listen shutdown=[-s-l]"},
        {"tolva",
         {"-l", "x", std::string(1023, 'a')},
         "listen shutdown=[" + std::string(1023, 'a') + "]"},
        {"tolva",
         {"-l", "x", std::string(1024, 'a')},
         "listen shutdown=[" + std::string(1024, 'a') + "]"},
        {"tolva",
         {"-l", "x", std::string(1020, 'a'), "bcdef", std::string(5000, 'g')},
         "listen shutdown=[" + std::string(1020, 'a') + "bcdef" +
             std::string(5000, 'g') + "]"},
    });
    check_refused({
        {"tolva",
         {"-l", "-bs", "s.sh", "extra"},
         "superfluous parameter: `extra' (-? for help).\n"},
        {"tolva",
         {"-s", "x", "extra"},
         "unknown parameter: `extra' (-? for help).\n"},
        {"tolva",
         {"-sr", "x", "-a", "127.0.0.1", "extra"},
         "unknown parameter: `extra' (-? for help).\n"},
        {"sendtolva", {"word"}, "unknown parameter: `word' (-? for help).\n"},
        {"sendtolva", {""}, "unknown parameter: `' (-? for help).\n"},
        {"tolva",
         {"extra", "-sc", "-a", "127.0.0.1"},
         "unknown parameter: `extra' (-? for help).\n"},
    });
}

TEST(check_input, gives_the_result_of_the_mode) {
    for (int32_t result : {0, 1, 128, 255}) {
        result_of_mode = result;
        EXPECT_EQ(run("tolva", {"-l"}), result);
        EXPECT_EQ(run("tolva", {"-s", "-a", "127.0.0.1"}), result);
        EXPECT_EQ(run("tolva", {"-sc", "-a", "127.0.0.1"}), result);
    }
}

TEST(check_input, ends_when_memory_is_exhausted) {
    struct row {
        words arguments;
        const char *between; /* "tolva: " and the system's text */
    };
    const std::vector<row> rows = {
        {{"-l", "-c", "file"}, "malloc(): "}, {{"-se", "SHUTDOWN"}, ": "},
        {{"-sr", "SHUTDOWN"}, ": "},          {{"-sc"}, ": "},
        {{"-l", "x", "/opt/a.sh"}, ""},
    };
    for (const row &one : rows) {
        SCOPED_TRACE(joined("tolva", one.arguments));
        ending end = in_child([&] {
            failing_heap empty;
            run("tolva", one.arguments);
        });
        EXPECT_EQ(end.status, 1);
        EXPECT_EQ(end.err, "tolva: "s + one.between + strerror(ENOMEM) + "\n");
    }
}

TEST(check_input, traces_its_entry_first) {
    auto body = [] { run("tolva", {"-l", "-bs", "x"}); };
    const std::string expected = "TRACEIN: check_input\nTRACEIN: scan_mode\n";
    EXPECT_EQ(traced(6, body).substr(0, expected.size()), expected);
    EXPECT_EQ(traced(5, body), "");
}
