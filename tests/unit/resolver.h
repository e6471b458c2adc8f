/*
 * A resolver with names for every answer, so that no test asks the network,
 * and the line that says that a name does not resolve.
 */
#ifndef TESTS_UNIT_RESOLVER_H
#define TESTS_UNIT_RESOLVER_H

#include <arpa/inet.h>
#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <netdb.h>
#include <string>
#include <unistd.h>

/* Stands before the C library's: answers by name, localhost in truth. */
extern "C" hostent *gethostbyname(const char *name) {
    static in_addr found;
    static char *addresses[] = {nullptr, nullptr};
    static hostent entry;
    if (strcmp(name, "localhost") == 0) {
        using resolver = hostent *(*)(const char *);
        return reinterpret_cast<resolver>(dlsym(RTLD_NEXT, "gethostbyname"))(
            name);
    }
    if (strcmp(name, "hangs.invalid") == 0) {
        for (;;) {
            pause();
        }
    }
    inet_aton("10.1.2.3", &found);
    void *bytes = &found;
    addresses[0] = static_cast<char *>(bytes);
    entry = hostent{};
    entry.h_addrtype = AF_INET;
    entry.h_length = sizeof found;
    entry.h_addr_list = addresses;
    if (strcmp(name, "myhost") == 0) {
        return &entry;
    }
    if (strcmp(name, "late.invalid") == 0) {
        raise(SIGALRM);
        return &entry;
    }
    if (strcmp(name, "high.invalid") == 0) {
        inet_aton("203.111.113.255", &found);
        return &entry;
    }
    if (strcmp(name, "ipv6.invalid") == 0) {
        entry.h_addrtype = AF_INET6;
        return &entry;
    }
    if (strcmp(name, "empty.invalid") == 0) {
        addresses[0] = nullptr;
        return &entry;
    }
    return nullptr;
}

inline std::string unresolved(const std::string &host) {
    return "prog: could not resolve hostname `" + host + "'\n";
}

#endif
