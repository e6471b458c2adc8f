/* Any line, and any file: what was read must survive being rewritten. */
#include "fuzz_input.h"
#include "unixtools/ux_configfile.h"

#include <cstdio>
#include <unistd.h>

namespace
{

char *name = nullptr;
int32_t number = 0;
char *fallback = nullptr;
int32_t seven = 7;

ux_option table[] = {
    {UX_OPTION_STRING, "name", &name, &fallback, 0, 0},
    {UX_OPTION_INTEGER, "number", &number, &seven, 0, 0},
    {0, nullptr, nullptr, nullptr, 0, 0},
};

void parse_one(const uint8_t *data, size_t size)
{
    char *line = fuzz_text(data, size);
    cfgmodule parsed;
    int32_t result = parse_line(line, &parsed);
    fuzz_check(result == 0 || result == 1);
    for (const char *part : {parsed.ident, parsed.value, parsed.comment}) {
        fuzz_check(!part || (part >= line && part <= line + size));
    }
    free(line);
}

void read_back(const char *path, int32_t expected)
{
    number = 0;
    free(name);
    name = nullptr;
    fuzz_check(ux_readconfig(path, table, 3, 1) == 1);
    fuzz_check(number == expected);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    parse_one(data, size);
    char path[] = "/tmp/fuzz_configfile_XXXXXX";
    int fd = mkstemp(path);
    fuzz_check(fd >= 0 && write(fd, data, size) == static_cast<ssize_t>(size));
    close(fd);
    fuzz_check(ux_readconfig(path, table, 3, 1) == 1);
    int32_t first = number;
    fuzz_check(ux_rewriteconfig(path, table, 3) == 1);
    read_back(path, first);
    free(name);
    name = nullptr;
    unlink(path);
    return 0;
}
