/*
 * What a run would do, without doing it.
 */
#ifndef TOLVA2_FLEET_FLEET_PLAN_H
#define TOLVA2_FLEET_FLEET_PLAN_H

#include "tolva2/fleet/fleet_command.h"
#include "tolva2/fleet/fleet_options.h"
#include "tolva2/fleet/host_list.h"

/* Says what would be sent, and to whom. 0, or 1 when some line names none. */
[[nodiscard]] int32_t show_fleet(host_list *list, const fleet_command &command,
                                 const fleet_options &options);

#endif
