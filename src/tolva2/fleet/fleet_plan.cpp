/*
 * A line for each host, as its result would have one.
 */
#include "tolva2/fleet/fleet_plan.h"

#include <cstdio>

int32_t show_fleet(host_list *list, const fleet_command &command,
                   const fleet_options &options) {
    text_buffer text;
    bool faulty = false;
    for (const fleet_host &host : *list) {
        if (host.skipped) {
            continue;
        }
        faulty = faulty || host.fault;
        append_text(&text, options.label ? options.label : "");
        append_text(&text, options.label ? ": " : "");
        append_text(&text, host.fault ? "not sent to " : "would be sent to ");
        append_safe(&text, host.target, text_place::line);
        append_text(&text, host.name.empty() ? "" : "  ");
        append_safe(&text, host.name, text_place::line);
        append_text(&text, ": ");
        append_safe(&text, host.fault ? host.fault : command.shown(),
                    text_place::line);
        append_text(&text, "\n");
    }
    fwrite(text.bytes.get(), 1, text.length, stdout);
    fflush(stdout);
    return faulty ? 1 : 0;
}
