/* Template, parameters and out buffer of every size. */
#include "fuzz_input.h"
#include "tolva2/files/command_params.h"
#include "tolva2/files/msgdb.h"

#include <cstdio>
#include <unistd.h>

namespace {

/* One line of the database per run: the first half of the input. */
void with_database(const uint8_t *data, size_t size, char *params) {
    static char path[] = "/tmp/fuzz_params_XXXXXX";
    static int fd = mkstemp(path);
    fuzz_check(fd >= 0 && ftruncate(fd, 0) == 0);
    fuzz_check(pwrite(fd, "m1=", 3, 0) == 3);
    fuzz_check(pwrite(fd, data, size, 3) == static_cast<ssize_t>(size));
    fuzz_check(msgdb_open(path));
    for (size_t room : {size_t{1}, size_t{2}, size_t{30}, size_t{4096}}) {
        for (int32_t index = -1; index < 9; index++) {
            char *out = static_cast<char *>(malloc(room));
            char *text = strdup(params);
            int32_t found = get_V2command_params(
                out, room, static_cast<command_index>(index), text);
            fuzz_check(strlen(out) < room && found >= 0);
            free(text);
            free(out);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) {
        return 0;
    }
    size_t half = size / 2;
    char *params = fuzz_text(data + half, size - half);
    with_database(data, half, params);

    size_t room = strlen(params) + 8;
    char *buffer = static_cast<char *>(calloc(1, room + half + 1));
    memcpy(buffer, data, half);
    int32_t length = patch_msg_param(buffer, room, params);
    fuzz_check(length >= 0 && static_cast<size_t>(length) <= room);
    fuzz_check(strlen(buffer) == static_cast<size_t>(length));
    free(buffer);

    const char *stripped = strip_params(params);
    fuzz_check(!stripped || *stripped);
    free(params);
    return 0;
}
