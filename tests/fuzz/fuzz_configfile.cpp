/* Any line, and any file: what was read must survive being rewritten. */
#include "fuzz_input.h"
#include "unixtools/ux_cfgline.h"
#include "unixtools/ux_configfile.h"

#include <cstdio>
#include <unistd.h>

namespace {

ux_text name;
int32_t number = 0;
ux_text fallback;
int32_t seven = 7;

const ux_option table[] = {
    {UX_OPTION_STRING, "name", {nullptr, &name}, {nullptr, &fallback}},
    {UX_OPTION_INTEGER, "number", {&number}, {&seven}},
    {},
};

void parse_one(const uint8_t *data, size_t size) {
    char *line = fuzz_text(data, size);
    config_line parsed;
    int32_t result = parse_line(line, &parsed);
    fuzz_check(result == 0 || result == 1);
    for (std::string_view part : {parsed.ident, parsed.value, parsed.comment}) {
        fuzz_check(!part.data() || (part.data() >= line &&
                                    part.data() + part.size() <= line + size));
    }
    free(line);
}

void read_back(const char *path, int32_t expected) {
    number = 0;
    name = nullptr;
    fuzz_check(ux_readconfig(path, table, 3, 1) == 1);
    fuzz_check(number == expected);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    parse_one(data, size);
    char path[] = "/tmp/fuzz_configfile_XXXXXX";
    int fd = mkstemp(path);
    fuzz_check(fd >= 0 && write(fd, data, size) == static_cast<ssize_t>(size));
    close(fd);
    fuzz_check(ux_readconfig(path, table, 3, 1) == 1);
    int32_t first = number;
    fuzz_check(ux_rewriteconfig(path, table, 3) == 1);
    read_back(path, first);
    name = nullptr;
    unlink(path);
    return 0;
}
