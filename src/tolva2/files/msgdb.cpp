#include "tolva2/files/msgdb.h"
#include "tolva2/base/trace.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace
{

constexpr size_t SHARED_BUFFER = 1024;
constexpr size_t KEY_BUFFER = 16;

char *database_name = nullptr;
char shared_text[SHARED_BUFFER];

/* The last character goes when it is part of a line end. */
size_t drop_line_end(char *text, size_t length)
{
    if (length > 0 && (text[length - 1] == '\r' || text[length - 1] == '\n')) {
        text[--length] = '\0';
    }
    return length;
}

} // namespace

int32_t msgdb_open(const char *name)
{
    trace_in();
    struct stat status;
    if (!name || !*name || stat(name, &status) < 0) {
        return 0;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = ENOENT;
        return 0;
    }
    char *copy = strdup(name);
    if (!copy) {
        return 0;
    }
    free(database_name);
    database_name = copy;
    return 1;
}

void msgdb_close()
{
    trace_in();
    free(database_name);
    database_name = nullptr;
}

const char *msgdb_get(int32_t number)
{
    trace_in();
    int32_t length = msgdb_get_into(number, shared_text, sizeof shared_text);
    return length > 0 ? shared_text : nullptr;
}

int32_t msgdb_get_into(int32_t number, char *buffer, size_t size)
{
    trace_in();
    if (!buffer || size == 0) {
        return -1;
    }
    buffer[0] = '\0';
    FILE *file = database_name ? fopen(database_name, "re") : nullptr;
    if (!file) {
        return 0;
    }
    int32_t length = msgdb_find(file, buffer, size, number);
    fclose(file);
    return length;
}

int32_t msgdb_find(FILE *stream, char *buffer, size_t size, int32_t number)
{
    trace_in();
    if (!stream || !buffer || size == 0) {
        return -1;
    }
    char key[KEY_BUFFER];
    snprintf(key, sizeof key, "m%i=", number);
    const char *text = nullptr;
    /* A line of one byte could hold no text and would never reach the end. */
    int limit = size < INT_MAX ? static_cast<int>(size) : INT_MAX;
    while (!text && limit > 1 && fgets(buffer, limit, stream)) {
        if (strstr(buffer, key)) {
            text = strchr(buffer, '=') + 1;
        }
    }
    if (!text) {
        buffer[0] = '\0';
        return 0;
    }
    size_t length = strlen(text);
    memmove(buffer, text, length + 1);
    length = drop_line_end(buffer, length);
    length = drop_line_end(buffer, length);
    return static_cast<int32_t>(length);
}
