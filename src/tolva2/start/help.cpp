/*
 * The help and the banner, a text each. What "-?" says differs from what is
 * accepted here and there; the table of options decides.
 */
#include "tolva2/start/help.h"
#include "tolva2/base/trace.h"

#include <cstdio>

namespace {

constexpr char HELP[] =
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

constexpr char BANNER[] =
    "\ntolva V3.00.0 - UPS shutdown listener and sender"
    "\nFree software under the MIT license, without any warranty.\n\n";

} // namespace

void help() {
    trace_in();
    fputs(HELP, stdout);
}

void version() {
    trace_in();
    fputs(BANNER, stdout);
}
