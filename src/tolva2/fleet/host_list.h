/*
 * The list of hosts: a line of the file becomes a record, each host once. What
 * names no host exactly is kept as well, with the reason, so that it can be
 * reported beside the others.
 */
#ifndef TOLVA2_FLEET_HOST_LIST_H
#define TOLVA2_FLEET_HOST_LIST_H

#include "tolva2/fleet/fleet_array.h"
#include "unixtools/ux_owned.h"

#include <cstdint>
#include <netinet/in.h>
#include <string_view>

constexpr int32_t NO_HOST = -1;

/* One host of the list; its texts stand in the list's own. */
struct fleet_host {
    std::string_view target;     /* "<address or name>[:<port>]", as written */
    std::string_view name;       /* what stands behind it; may be empty */
    std::string_view host;       /* the target without its port */
    const char *fault = nullptr; /* why the target is none */
    sockaddr_in address{};       /* the port alone, while by_name */
    bool by_name = false;        /* has to be looked up */
    bool second_try = false;     /* has had a short look already */
    bool skipped = false;        /* done in an earlier run */
    bool finished = false;       /* its result is out */
    int32_t next = NO_HOST;      /* of the queue that it waits in */
    int64_t began = 0;           /* milliseconds; 0 before it is begun with */
    int64_t connect_limit = 0;   /* milliseconds that are left for that */
};

/* A target, taken apart. */
struct parsed_target {
    const char *fault = nullptr; /* what is wrong with it */
    std::string_view host;
    bool by_name = false;
    in_addr address{};
    uint16_t port = 0; /* host byte order */
};

/* Reads "<host>[:<port>]". An address is four numbers of 0 to 255 without
 * leading zeros; what could be read as another one is a fault. */
[[nodiscard]] parsed_target parse_target(std::string_view text,
                                         uint16_t default_port);

struct host_list {
    ux_text text;
    fleet_array<fleet_host> room;
    size_t count = 0;           /* hosts in it */
    fleet_array<int32_t> index; /* where a host is found by its target */
    uint16_t default_port = 0;
    fleet_host *begin() { return room.begin(); }
    fleet_host *end() { return room.begin() + count; }
    fleet_host &operator[](int32_t at) { return room[static_cast<size_t>(at)]; }
};

/* Takes the hosts of a text of that length; the list keeps the text. Without
 * memory it has no room. */
[[nodiscard]] host_list parse_hosts(ux_text text, size_t length,
                                    uint16_t default_port);

/* The place of a target in the list, or NO_HOST. */
[[nodiscard]] int32_t find_host(const host_list &list, std::string_view target);

/* A file as a text, terminated; "-" is standard input. */
struct file_text {
    ux_text bytes; /* null on failure, with errno */
    size_t length = 0;
};
[[nodiscard]] file_text read_file(const char *path);

#endif
