/* What comes in from a socket: requests, replies and their values. */
#include "fuzz_input.h"
#include "tolva2/net/wire.h"

namespace {

/* Cuts up a copy: a record without a fault names a command. */
void check_command(const char *text) {
    char *copy = strdup(text);
    const command_request request = parse_command(copy);
    fuzz_check((request.fault == command_fault::none) ==
               (request.index != COMMAND_UNKNOWN));
    fuzz_check(strlen(request.params) < sizeof request.params);
    free(copy);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    char *text = fuzz_text(data, size);
    request_class kind = classify_request(text);
    size_t length = strlen(text);
    fuzz_check(kind != REQUEST_V1 || length == REQUEST_HEADER_LENGTH);
    fuzz_check(kind != REQUEST_V2 || length > REQUEST_HEADER_LENGTH);
    fuzz_check(!is_reply_header(text) || length >= REPLY_HEADER_LENGTH);
    if (kind == REQUEST_V2) {
        check_command(text + REQUEST_TEXT_OFFSET);
    }
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
