/* Any format and argument; the file must stay below its limit and a line. */
#include "fuzz_input.h"
#include "tolva2/files/logfile.h"

#include <sys/stat.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static char path[] = "/tmp/fuzz_logfile_XXXXXX";
    static int fd = mkstemp(path);
    static bool opened = logfile_open(path, 1);
    log_into_file(opened);
    size_t half = size / 2;
    char *format = fuzz_text(data, half);
    char *argument = fuzz_text(data + half, size - half);
    log_message(static_cast<int32_t>(size % 3), format, argument, argument);
    struct stat status;
    fuzz_check(fstat(fd, &status) == 0 && status.st_size <= 1024 + 1023);
    free(argument);
    free(format);
    return 0;
}
