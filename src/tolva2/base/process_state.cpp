#include "tolva2/base/process_state.h"

int32_t debug_level = -1;
char *progname = nullptr;
char *home_dir = nullptr;
int32_t own_pid = 0;
int32_t logged_pid = 0;
int32_t max_fds = 0;
int32_t fd_reserve = 0;
int32_t daemonized = 0;
