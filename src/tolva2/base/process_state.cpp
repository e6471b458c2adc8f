/*
 * The process-wide variables, with the values that hold until start-up has
 * settled them.
 */
#include "tolva2/base/process_state.h"

const char *progname = nullptr;
const char *home_dir = nullptr;
int32_t own_pid = 0;
int32_t max_fds = 0;
int32_t fd_reserve = 0;
bool daemonized = false;
