/*
 * Each option in each mode: what it hands to the mode, and every text that it
 * is refused with.
 */
#include "cmdline_fixture.h"
#include "failing_calls.h"

namespace {

const std::string not_broadcast =
    "broadcast only possible in send_mode(tolva) -s[e] (-? for help).\n";
const std::string not_kesdal = "kesdal/kesnor address not possible in "
                               "send_mode(tolva) -s[e] (-? for help).\n";

} // namespace

TEST(addresses, are_filed_by_option_and_mode) {
    check_accepted({
        {"tolva",
         {"-se", "SHUTDOWN", "-a", "127.0.0.1", "-a", "127.0.0.2:6004"},
         "send to=127.0.0.1:0/1/2,127.0.0.2:6004/1/2 port=6003 timeout=10 "
         "command=[MSG_EXECUTE SHUTDOWN]"},
        {"tolva",
         {"-s", "-ar", "127.0.0.1"},
         "send to=127.0.0.1:0/1/2 port=6003 timeout=10"},
        {"tolva",
         {"-s", "-A", "127.0.0.1"},
         "send to=127.0.0.1:0/1/2 port=6003 timeout=10"},
        {"tolva",
         {"-s", "-ab", "127.255.255.255", "-a", "127.0.0.1"},
         "send to=127.255.255.255:0/2/2,127.0.0.1:0/1/2 port=6003 timeout=10"},
        {"tolva",
         {"-sc", "-ar", "127.0.0.1", "-a", "127.0.0.2:99"},
         "send to=127.0.0.1:0/4/4,127.0.0.2:99/4/4 port=5769 timeout=10 "
         "command=[MSG_SCAN]"},
        {"tolva",
         {"-l", "-a", "127.0.0.1", "-ar", "127.0.0.2:7"},
         "listen peers=127.0.0.1:0/1/1,127.0.0.2:7/1/1"},
        /* Filed where check mode does not look. */
        {"tolva",
         {"-sc", "-ac", "127.0.0.1", "-a", "127.0.0.2"},
         "send to=127.0.0.2:0/4/4 port=5769 timeout=10 command=[MSG_SCAN]"},
    });
}

TEST(addresses, that_are_missing_or_of_no_use_are_refused) {
    const std::string missing_a =
        "missing parameter for -a `<host[:port]>'(-? for help).\n";
    const std::string missing_ab =
        "missing parameter for -ab `<ip-address>'(-? for help).\n";
    const std::string missing_ac =
        "missing parameter for -ac `<host[:port]>'(-? for help).\n";
    check_refused({
        {"tolva", {"-s", "-a"}, missing_a},
        {"tolva", {"-s", "-ar"}, missing_a},
        {"tolva", {"-sc", "-a"}, missing_a},
        {"tolva", {"-s", "-a", "-t", "5"}, missing_a},
        {"tolva", {"-s", "-ab"}, missing_ab},
        {"tolva", {"-l", "-ab"}, missing_ab},
        {"tolva", {"-s", "-ab", "-d"}, missing_ab},
        {"tolva", {"-sc", "-ac"}, missing_ac},
        {"tolva", {"-l", "-ac"}, missing_ac},
        {"tolva", {"-sr", "x", "-ab", "127.0.0.1"}, not_broadcast},
        {"tolva", {"-sc", "-ab", "127.0.0.1"}, not_broadcast},
        {"tolva", {"-l", "-ab", "127.0.0.1"}, not_broadcast},
        {"tolva", {"-l", "-ac", "127.0.0.1"}, not_kesdal},
        {"tolva", {"-s", "-ac", "127.0.0.1"}, not_kesdal},
        {"tolva", {"-sr", "x", "-ac", "127.0.0.1"}, not_kesdal},
        {"tolva",
         {"-s", "-ax", "127.0.0.1"},
         "unknown parameter: `-ax' (-? for help).\n"},
        {"tolva", {"-s", "-ax"}, "unknown parameter: `-ax' (-? for help).\n"},
        {"tolva",
         {"-s", "-AB", "127.0.0.1"},
         "unknown parameter: `-aB' (-? for help).\n"},
        {"tolva", {"-s", "x"}, no_peers},
        {"tolva", {"-se", "SHUTDOWN"}, no_peers},
        {"tolva", {"-sr", "SHUTDOWN", "-t", "5"}, no_peers},
        {"tolva", {"-sc"}, no_servers},
        {"tolva", {"-sc", "-ac", "127.0.0.1"}, no_servers},
    });
}

TEST(addresses, that_cannot_be_resolved_end_the_program) {
    auto lines = [](const std::string &host) {
        return "could not resolve hostname `" + host +
               "'\ntolva: could not handle address [" + host + "]\n";
    };
    check_refused({
        {"tolva", {"-s", "-a", "no.invalid"}, lines("no.invalid")},
        /* As splitting left it. */
        {"tolva", {"-s", "-a", "no.invalid:5"}, lines("no.invalid")},
        {"tolva", {"-s", "-ab", "no.invalid"}, lines("no.invalid")},
        {"tolva", {"-sc", "-ac", "[::1]:80"}, lines("[::1]")},
        {"tolva", {"-sc", "-a", "h:1:2"}, lines("h:1")},
        {"tolva", {"-l", "-a", "a,b"}, lines("a,b")},
        {"tolva", {"-s", "-a", ""}, "could not handle address []\n"},
    });
}

TEST(ports, are_read_and_checked) {
    check_accepted({
        {"tolva", {"-l", "-p", "7000"}, "listen port=7000"},
        {"tolva", {"-l", "-pr", "1"}, "listen port=1"},
        {"tolva", {"-l", "-P", "65535"}, "listen port=65535"},
        {"tolva",
         {"-l", "-p", "10.0.0.1:7000"},
         "listen host=[10.0.0.1] port=7000"},
        {"tolva", {"-l", "-p", "a:b:7000"}, "listen host=[a:b] port=7000"},
        {"tolva", {"-l", "-p", ":7000"}, "listen host=[] port=7000"},
        /* The later one counts, with its host. */
        {"tolva", {"-l", "-p", "h:1", "-p", "2"}, "listen port=2"},
        {"tolva", {"-l", "-p", "7000x"}, "listen port=7000"},
        {"tolva", {"-l", "-pc", "6000"}, "listen check_port=6000"},
        {"tolva", {"-l", "-pc", "127.0.0.1:6000"}, "listen check_port=127"},
        {"tolva",
         {"-s", "-a", "127.0.0.1", "-p", "7000"},
         "send to=127.0.0.1:0/1/2 port=7000 timeout=10"},
        {"tolva",
         {"-s", "-a", "127.0.0.1", "-pc", "7000"},
         "send to=127.0.0.1:0/1/2 port=6003 timeout=10"},
        {"tolva",
         {"-sc", "-a", "127.0.0.1", "-p", "6000"},
         "send to=127.0.0.1:0/4/4 port=5769 timeout=10 command=[MSG_SCAN]"},
        {"tolva",
         {"-sc", "-a", "127.0.0.1", "-pc", "6000"},
         "send to=127.0.0.1:0/4/4 port=6000 timeout=10 command=[MSG_SCAN]"},
    });
    std::vector<refused_row> rows = {
        {"tolva",
         {"-l", "-p"},
         "missing parameter for -p\0 `<port>' (-? for help).\n"s},
        {"tolva",
         {"-l", "-pc", "-d"},
         "missing parameter for -pc `<port>' (-? for help).\n"},
        {"tolva",
         {"-l", "-px"},
         "missing parameter for -px `<port>' (-? for help).\n"},
        {"tolva",
         {"-l", "-px", "1"},
         "unknown parameter: `-px' (-? for help).\n"},
        {"tolva",
         {"-l", "-pC", "1"},
         "unknown parameter: `-pC' (-? for help).\n"},
        /* As splitting left it. */
        {"tolva",
         {"-l", "-p", "10.0.0.1:0"},
         "invalid parameter: -p\0 `10.0.0.1' (-? for help).\n"s},
        {"tolva",
         {"-l", "-pr", "host:x"},
         "invalid parameter: -pr `host' (-? for help).\n"},
    };
    for (const char *bad :
         {"0", "65536", "70000", "abc", "", " -1", "4294973299",
          "99999999999999999999", "4294967297"}) {
        rows.push_back(
            {"tolva",
             {"-l", "-p", bad},
             "invalid parameter: -p\0 `"s + bad + "' (-? for help).\n"});
        rows.push_back(
            {"tolva",
             {"-sc", "-pc", bad},
             "invalid parameter: -pc `"s + bad + "' (-? for help).\n"});
    }
    check_refused(rows);
}

TEST(retries, are_read_and_checked) {
    check_accepted({
        {"tolva", {"-l", "-r", "3"}, "listen retries=3"},
        {"tolva", {"-l", "-rc", "0"}, "listen retries=0"},
        {"tolva", {"-l", "-R", "abc"}, "listen retries=0"},
        {"tolva", {"-l", "-r", "4294967297"}, "listen retries=2147483647"},
        {"tolva",
         {"-s", "-r", "3", "-a", "127.0.0.1"},
         "send to=127.0.0.1:0/1/2 port=6003 timeout=10"},
    });
    check_refused({
        {"tolva",
         {"-l", "-r"},
         "missing parameter: -r\0 `<num>' (-? for help).\n"s},
        {"tolva",
         {"-l", "-r", "-1"},
         "missing parameter: -r\0 `<num>' (-? for help).\n"s},
        {"tolva",
         {"-l", "-rc"},
         "missing parameter: -rc `<num>' (-? for help).\n"},
        {"tolva",
         {"-l", "-rx"},
         "missing parameter: -rx `<num>' (-? for help).\n"},
        {"tolva",
         {"-l", "-r", " -1"},
         "invalid parameter: -r\0 ` -1' (-? for help).\n"s},
        {"tolva",
         {"-l", "-rc", "\t-7"},
         "invalid parameter: -rc `\t-7' (-? for help).\n"},
        {"tolva",
         {"-l", "-rx", "1"},
         "unknown parameter: `-rx' (-? for help).\n"},
    });
}

TEST(times, are_read_and_checked) {
    check_accepted({
        {"tolva", {"-l", "-t", "5"}, "listen timeout=5"},
        {"tolva", {"-l", "-tr", "0"}, "listen timeout=0"},
        {"tolva", {"-l", "-tc", "120"}, "listen interval=120"},
        {"tolva", {"-l", "-tc", "0"}, "listen interval=0"},
        {"tolva", {"-l", "-T", "abc"}, "listen timeout=0"},
        {"tolva",
         {"-s", "-t", "3", "-a", "127.0.0.1"},
         "send to=127.0.0.1:0/1/2 port=6003 timeout=3"},
        {"tolva",
         {"-sr", "x", "-t", "0", "-a", "127.0.0.1"},
         "send to=127.0.0.1:0/1/3 port=6003 timeout=0 "
         "command=[MSG_EXECSTATUS x]"},
        {"tolva",
         {"-sc", "-t", "1", "-a", "127.0.0.1"},
         "send to=127.0.0.1:0/4/4 port=5769 timeout=1 command=[MSG_SCAN]"},
        {"tolva",
         {"-s", "-tc", "3", "-a", "127.0.0.1"},
         "send to=127.0.0.1:0/1/2 port=6003 timeout=10"},
        {"tolva",
         {"-s", "-t", "99999999999", "-a", "127.0.0.1"},
         "send to=127.0.0.1:0/1/2 port=6003 timeout=2147483647"},
    });
    check_refused({
        {"tolva",
         {"-l", "-t"},
         "missing parameter: -t\0 `<time>' (-? for help).\n"s},
        {"tolva",
         {"-l", "-t", "-5"},
         "missing parameter: -t\0 `<time>' (-? for help).\n"s},
        {"tolva",
         {"-l", "-tc"},
         "missing parameter: -tc `<time>' (-? for help).\n"},
        {"tolva",
         {"-l", "-tx"},
         "missing parameter: -tx `<time>' (-? for help).\n"},
        {"tolva",
         {"-l", "-t", " -5"},
         "invalid parameter: -t\0 ` -5' (-? for help).\n"s},
        {"tolva",
         {"-l", "-tr", " -5"},
         "invalid parameter: -tr ` -5' (-? for help).\n"},
        {"tolva",
         {"-l", "-tc", " -5"},
         "invalid parameter: -tc ` -5' (-? for help).\n"},
        {"tolva",
         {"-l", "-tx", "1"},
         "unknown parameter: `-tx' (-? for help).\n"},
    });
}

TEST(scripts, belong_to_listen_mode) {
    check_accepted({
        {"tolva", {"-l", "-bs", "down.sh"}, "listen shutdown=[down.sh]"},
        {"tolva", {"-l", "-ba", "dead.sh x"}, "listen alive=[dead.sh x]"},
        {"tolva", {"-Bs", "one", "-bs", "two", "-l"}, "listen shutdown=[two]"},
        {"tolva", {"-l", "-ba", "one", "-ba", "two"}, "listen alive=[two]"},
    });
    check_refused({
        {"tolva",
         {"-s", "-bs", "x"},
         "no execute parameter possible in send-mode: `-bs' (-? for help).\n"},
        {"tolva",
         {"-sr", "-b"},
         "no execute parameter possible in send-mode: `-b\0' (-? for help).\n"s},
        {"tolva",
         {"-sc", "-bx", "x"},
         "no execute parameter possible in send-mode: `-bx' (-? for help).\n"},
        {"tolva",
         {"-l", "-bs"},
         "missing parameter: -bs `<file>' (-? for help).\n"},
        {"tolva",
         {"-l", "-ba", "-d"},
         "missing parameter: -ba `<file>' (-? for help).\n"},
        {"tolva",
         {"-l", "-b"},
         "missing parameter: -b\0 `<file>' (-? for help).\n"s},
        {"tolva",
         {"-l", "-bx"},
         "missing parameter: -bx `<file>' (-? for help).\n"},
        {"tolva",
         {"-l", "-bx", "x"},
         "unknown parameter: `-bx' (-? for help).\n"},
        {"tolva",
         {"-l", "-b", "x"},
         "unknown parameter: `-b\0' (-? for help).\n"s},
        {"tolva",
         {"-l", "-bS", "x"},
         "unknown parameter: `-bS' (-? for help).\n"},
    });
}

TEST(configfile, belongs_to_listen_mode) {
    check_accepted({
        {"tolva", {"-l", "-c", "my.cfg"}, "listen cfgfile=[my.cfg]"},
        {"tolva", {"-l", "-C", "my.cfg"}, "listen cfgfile=[my.cfg]"},
        {"tolva", {"-l", "-cz", "my.cfg"}, "listen cfgfile=[my.cfg]"},
        {"tolva", {"-l", "-c", "1", "-c", "2"}, "listen cfgfile=[2]"},
        {"tolva", {"-l", "-c", ""}, "listen cfgfile=[]"},
    });
    check_refused({
        {"tolva",
         {"-s", "-c", "x"},
         "configfile not used in send-mode: `-c'.\n"},
        {"tolva", {"-sr", "-c"}, "configfile not used in send-mode: `-c'.\n"},
        {"tolva",
         {"-sc", "-cz", "x"},
         "configfile not used in send-mode: `-c'.\n"},
        {"tolva",
         {"-l", "-c"},
         "missing parameter: -c `<file>' (-? for help).\n"},
        {"tolva",
         {"-l", "-cz", "-d"},
         "missing parameter: -c `<file>' (-? for help).\n"},
    });
}

TEST(trace_option, sets_the_level_in_every_mode) {
    struct row {
        words arguments;
        int32_t level;
    };
    const std::vector<row> rows = {
        {{"-l"}, -1},
        {{"-l", "-d"}, 0},
        {{"-d", "-l"}, 0},
        {{"-l", "-d", "0"}, 0},
        {{"-l", "-d", " -3"}, -3},
        {{"-l", "-d", "x"}, 0},
        {{"-l", "-D", "0"}, 0},
        {{"-l", "-dxyz"}, 0},
        {{"-s", "-a", "127.0.0.1", "-d"}, 0},
        {{"-sc", "-a", "127.0.0.1", "-d"}, 0},
    };
    for (const row &one : rows) {
        SCOPED_TRACE(joined("tolva", one.arguments));
        trace_level level(-1);
        run("tolva", one.arguments);
        EXPECT_EQ(debug_level, one.level);
    }
    {
        trace_level level(-1);
        capture output;
        run("tolva", {"-l", "-d", "7"});
        EXPECT_EQ(debug_level, 7);
        EXPECT_EQ(called, "listen");
    }
    check_refused({{"tolva",
                    {"-l", "-d", "-1"},
                    "unknown parameter: `-1' (-? for help).\n"}});
}

TEST(unknown_options, are_named_whole) {
    std::vector<refused_row> rows;
    for (const char *option :
         {"-e",  "-f", "-g",     "-i",    "-j",   "-k",    "-m",  "-n", "-o",
          "-q",  "-u", "-w",     "-x",    "-y",   "-z",    "-1",  "-",  "--",
          "--l", "-_", "-\xe4x", "-exec", "-Xyz", "-%s%n", "-\n", "-q5"}) {
        rows.push_back(
            {"tolva",
             {"-l", option},
             "unknown parameter: `"s + option + "' (-? for help).\n"});
        rows.push_back(
            {"sendtolva",
             {option, "value"},
             "unknown parameter: `"s + option + "' (-? for help).\n"});
    }
    check_refused(rows);
}

TEST(options, end_when_memory_is_exhausted) {
    for (const char *option : {"-bs", "-ba", "-c"}) {
        SCOPED_TRACE(option);
        ending end = in_child([&] {
            failing_heap empty;
            run("tolva", {"-l", option, "file"});
        });
        EXPECT_EQ(end.status, 1);
        EXPECT_EQ(end.err, "tolva: malloc(): "s + strerror(ENOMEM) + "\n");
    }
}

TEST(options, give_their_lists_back_when_they_go) {
    auto body = [] {
        run("tolva", {"-sc", "-ac", "127.0.0.1", "-a", "127.0.0.2"});
    };
    const std::string text = traced(6, body);
    const std::string gone = "TRACEIN: ux_list_destroy\n";
    /* One for each list that is not empty. */
    size_t first = text.find(gone);
    ASSERT_NE(first, std::string::npos);
    size_t second = text.find(gone, first + 1);
    ASSERT_NE(second, std::string::npos);
    EXPECT_EQ(text.find(gone, second + 1), std::string::npos);
}
