/* Address texts as far as they are taken apart without a resolver. */
#include "fuzz_input.h"
#include "tolva2/net/address.h"
#include "tolva2/start/program_dir.h"
#include "unixtools/ux_number.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    char *text = fuzz_text(data, size);
    char *copy = strdup(text);
    char *host = nullptr;
    int32_t port = 0;
    const char *found = split_addr(&host, &port, copy);
    fuzz_check(found == (*text ? copy : nullptr));
    fuzz_check(!found || strlen(found) <= strlen(text));
    free(copy);

    copy = strdup(text);
    port = split_port(&host, copy);
    fuzz_check(*text || port == 0);
    free(copy);

    ux_text dir = find_program_dir(text);
    fuzz_check(!dir || *dir.get());
    free(text);
    return 0;
}
