/*
 * One run: every host of a list is told, as many at a time as descriptors
 * allow, by one process that waits in one place.
 */
#ifndef TOLVA2_FLEET_FLEET_RUN_H
#define TOLVA2_FLEET_FLEET_RUN_H

#include "tolva2/fleet/fleet_command.h"
#include "tolva2/fleet/fleet_options.h"
#include "tolva2/fleet/host_list.h"

/* Tells every host of the list that is not skipped and writes its result.
 * Returns the exit status: 0 when all are done, 1 when some are not, 2 when
 * memory did not suffice to begin. */
[[nodiscard]] int32_t run_fleet(host_list *list, const fleet_command &command,
                                const fleet_options &options);

#endif
