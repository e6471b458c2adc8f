/*
 * The help and the banner as they are printed, byte for byte: people look for
 * words in them, and scripts for the version.
 */
#include "capture.h"
#include "tolva2/base/process_state.h"
#include "tolva2/start/help.h"

#include <string>

namespace {

const char *const HELP =
    " tolva may be run in listen-, or send-mode.\n"
    " listen-mode: wait for connections from tolva sender:\n"
    " tolva -l [options]\n"
    " options are:\n"
    " -c <file>        : read Configuration from <file>\n"
    " -d               : run as foreground process\n"
    " -bs <file>       : execute <file> if \"SHUTDOWN\" command is received\n"
    " -ba <file>       : execute <file> if kesdal/kesnor is not alive\n"
    " -a <host>        : allow tolva connection only from <host>\n"
    " -p <port>        : listen(/receive) on tcp(/udp) <port>\n"
    " -ac <host[:port]>: check if kesdal/kesnor at <host[:port]> is alive\n"
    " -pc <port>       : check kesdal/kesnor on <port>\n"
    " -rc <num>        : check is disabled after <num> unsuccessful retries\n"
    " -tc <time>       : check kesdal/kesnor every <time> minutes\n"
    "\n"
    " send-mode (tolva): send \"command\" to tolva listener:\n"
    " tolva -se \"command [parameter]\" -a <host[:port]> | -ab <ip-address> [options]\n"
    " -a <host[:port]> : send to tolva at <host[:port]>\n"
    " -ab <ip-address> : send tolva broadcast on <ip-address>\n"
    " \"command\" is one of:\n"
    " SHUTDOWN| EXECUTE| MSG_ID| MSG_TEXT| MAIL_ID| MAIL_TEXT| LOG_ID| LOG_TEXT\n"
    " options are:\n"
    " -p <port>        : send to tolva on <port>\n"
    " -t <time>        : try at most <time> seconds to connect\n"
    "\n"
    " send-mode (kesdal): check if kesdal/kesnor is alive:\n"
    " tolva -sc -a <host[:port]> [options]\n"
    " -a <host[:port]> : check kesdal/kesnor at <host[:port]>\n"
    " options are:\n"
    " -p <port>        : check kesdal/kesnor on <port>\n"
    " -t <time>        : try at most <time> seconds to connect\n"
    "\n"
    " common options:\n"
    " -?               : display this help and exit\n"
    " -v               : display version number and exit\n"
    "\n";

TEST(help_test, shows_every_option_on_standard_output) {
    capture errors(STDERR_FILENO);
    EXPECT_EQ(traced(-1, help), HELP);
    EXPECT_EQ(errors.text(), "");
}

TEST(help_test, always_speaks_of_tolva) {
    char name[] = "listentolva";
    progname = name;
    EXPECT_EQ(traced(-1, help), HELP);
    std::string banner = traced(-1, version);
    EXPECT_EQ(banner.rfind("\ntolva V", 0), 0u);
    progname = nullptr;
}

TEST(version_test, shows_the_number_a_title_and_one_more_line) {
    const std::string banner = traced(-1, version);
    const std::string head = "\ntolva V3.00.0 - ";
    ASSERT_EQ(banner.rfind(head, 0), 0u) << banner;
    size_t title_end = banner.find('\n', head.size());
    ASSERT_NE(title_end, std::string::npos);
    EXPECT_GT(title_end, head.size());
    size_t line_end = banner.find('\n', title_end + 1);
    ASSERT_NE(line_end, std::string::npos);
    EXPECT_GT(line_end, title_end + 1);
    EXPECT_EQ(banner.substr(line_end), "\n\n");
}

TEST(help_test, is_traced_above_level_5_only) {
    for (int32_t level : {0, 1, 5}) {
        EXPECT_EQ(traced(level, help), HELP) << level;
    }
    EXPECT_EQ(traced(6, help).rfind("TRACEIN: help\n", 0), 0u);
    EXPECT_EQ(traced(6, version).rfind("TRACEIN: version\n", 0), 0u);
}

} // namespace
