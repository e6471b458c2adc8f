/* What comes in from a socket: requests, replies and their values. */
#include "fuzz_input.h"
#include "tolva2/net/wire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    char *text = fuzz_text(data, size);
    int32_t kind = classify_request(text);
    size_t length = strlen(text);
    fuzz_check(kind != REQUEST_V1 || length == REQUEST_HEADER_LENGTH);
    fuzz_check(kind != REQUEST_V2 || length > REQUEST_HEADER_LENGTH);
    fuzz_check(!is_reply_header(text) || length >= REPLY_HEADER_LENGTH);
    for (size_t room : {size_t{1}, size_t{2}, size_t{16}}) {
        char *value = static_cast<char *>(malloc(room));
        const char *found = get_key_value(text, "EXITSTATUS", value, room);
        fuzz_check(strlen(value) < room);
        fuzz_check(found || !*value);
        free(value);
    }
    free(text);
    return 0;
}
