/*
 * The command line as a table: what is handed to which mode, and every usage
 * error. The modes are replaced by functions that write down their arguments.
 */
#include "sessions.h"

#include "tolva2/start/help.h"
#include "tolva2/start/mode_init.h"

#include <cstdlib>
#include <netdb.h>

using namespace std::string_literals;

namespace
{

bool memory_exhausted = false;

char *strdup_or_fail(const char *text)
{
    errno = ENOMEM;
    return memory_exhausted ? nullptr : strdup(text);
}

void *malloc_or_fail(size_t size)
{
    errno = ENOMEM;
    return memory_exhausted ? nullptr : malloc(size);
}

void *realloc_or_fail(void *block, size_t size)
{
    errno = ENOMEM;
    return memory_exhausted ? nullptr : realloc(block, size);
}

} // namespace

#undef strdup
#define strdup strdup_or_fail
#define malloc malloc_or_fail
#define realloc realloc_or_fail
#include "tolva2/start/cmdline.cpp" // NOLINT
#undef strdup
#undef malloc
#undef realloc

/* No test asks the network. */
extern "C" hostent *gethostbyname(const char *)
{
    return nullptr;
}

namespace
{

std::string called; /* with which arguments the mode was called */
int32_t result_of_mode = 0;

void show(const char *name, int32_t value, int32_t not_given)
{
    if (value != not_given) {
        called += std::string(" ") + name + "=" + std::to_string(value);
    }
}

void show(const char *name, const char *value)
{
    if (value != nullptr) {
        called += std::string(" ") + name + "=[" + value + "]";
    }
}

/* "text:port/kind/mode", in order. */
void show(const char *name, const ux_list *list)
{
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

int32_t init_receiver(char *cfgfile, const char *listen_host, int32_t port,
                      int32_t check_port, ux_list *peers, ux_list *servers,
                      ux_list *redundant, int32_t retries, char *shutdown_prog,
                      char *alive_prog, int32_t timeout, int32_t check_interval)
{
    called = "listen";
    show("cfgfile", cfgfile);
    show("host", listen_host);
    show("port", port, 0);
    show("check_port", check_port, 0);
    show("peers", peers);
    show("servers", servers);
    show("redundant", redundant);
    show("retries", retries, -1);
    show("shutdown", shutdown_prog);
    show("alive", alive_prog);
    show("timeout", timeout, -1);
    show("interval", check_interval, -1);
    free(cfgfile);
    free(shutdown_prog);
    free(alive_prog);
    return result_of_mode;
}

int32_t init_sender(const ux_list *addresses, int32_t port, int32_t timeout,
                    const char *command)
{
    called = "send";
    show("to", addresses);
    show("port", port, -1);
    show("timeout", timeout, -1);
    show("command", command);
    return result_of_mode;
}

namespace
{

using words = std::vector<std::string>;

/* check_input with arguments that may be cut up. */
int32_t run(const std::string &program, words arguments)
{
    program_name name(program);
    arguments.insert(arguments.begin(), "/any/path/" + program);
    std::vector<char *> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string &one : arguments) {
        argv.push_back(one.data());
    }
    argv.push_back(nullptr);
    called.clear();
    return check_input(static_cast<int32_t>(arguments.size()), argv.data());
}

std::string joined(const std::string &program, const words &arguments)
{
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

void check_accepted(const std::vector<accepted_row> &rows)
{
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

void check_refused(const std::vector<refused_row> &rows)
{
    for (const refused_row &row : rows) {
        SCOPED_TRACE(joined(row.program, row.arguments));
        ending end = in_child([&] { run(row.program, row.arguments); });
        EXPECT_EQ(end.status, 1);
        EXPECT_EQ(end.err, std::string(row.program) + ": " + row.message);
        EXPECT_EQ(end.out, "");
    }
}

const std::string doubled =
    "doubled mode parameter: `-l' and `-s'! (-? for help).\n";
const std::string no_mode = "missing parameter: `-l' or `-s'! (-? for help).\n";
const std::string no_peers =
    "missing address parameter: `-a <host[:port]>'! (-? for help).\n";
const std::string no_servers =
    "missing address parameter: `-ac <host[:port]>'! (-? for help).\n";
const std::string not_broadcast =
    "broadcast only possible in send_mode(tolva) -s[e] (-? for help).\n";
const std::string not_kesdal = "kesdal/kesnor address not possible in "
                               "send_mode(tolva) -s[e] (-? for help).\n";

} // namespace

TEST(mode, is_chosen_by_name_or_option)
{
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

TEST(mode, help_and_version_end_with_status_0)
{
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

TEST(mode, by_name_help_and_version_are_unknown)
{
    for (const char *program : {"sendtolva", "listentolva"}) {
        for (const char *option : {"-?", "-h", "-v", "-V", "-help"}) {
            check_refused(
                {{program,
                  {option},
                  "unknown parameter: `"s + option + "' (-? for help).\n"}});
        }
    }
}

TEST(scan_mode, gives_the_mode_alone)
{
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
        EXPECT_EQ(scan_mode(2, argv), one.mode) << one.option;
        /* The program's own word is not looked at. */
        EXPECT_EQ(scan_mode(1, argv + 1), 0);
    }
}

TEST(addresses, are_filed_by_option_and_mode)
{
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

TEST(addresses, that_are_missing_or_of_no_use_are_refused)
{
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

TEST(addresses, that_cannot_be_resolved_end_the_program)
{
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

TEST(command, is_joined_behind_its_verb)
{
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

TEST(ports, are_read_and_checked)
{
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

TEST(retries, are_read_and_checked)
{
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

TEST(times, are_read_and_checked)
{
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

TEST(scripts, belong_to_listen_mode)
{
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

TEST(configfile, belongs_to_listen_mode)
{
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

TEST(trace_option, sets_the_level_in_every_mode)
{
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

TEST(unknown_options, are_named_whole)
{
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

TEST(plain_words, are_the_shutdown_script_of_listen_mode)
{
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

TEST(check_input, gives_the_result_of_the_mode)
{
    for (int32_t result : {0, 1, 128, 255}) {
        result_of_mode = result;
        EXPECT_EQ(run("tolva", {"-l"}), result);
        EXPECT_EQ(run("tolva", {"-s", "-a", "127.0.0.1"}), result);
        EXPECT_EQ(run("tolva", {"-sc", "-a", "127.0.0.1"}), result);
    }
}

TEST(check_input, ends_when_memory_is_exhausted)
{
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
            memory_exhausted = true;
            run("tolva", one.arguments);
        });
        EXPECT_EQ(end.status, 1);
        EXPECT_EQ(end.err, "tolva: "s + one.between + strerror(ENOMEM) + "\n");
    }
}

TEST(check_input, traces_its_entry_first)
{
    auto body = [] { run("tolva", {"-l", "-bs", "x"}); };
    const std::string expected = "TRACEIN: check_input\nTRACEIN: scan_mode\n";
    EXPECT_EQ(traced(6, body).substr(0, expected.size()), expected);
    EXPECT_EQ(traced(5, body), "");
}
