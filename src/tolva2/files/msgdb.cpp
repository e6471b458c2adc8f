/*
 * A look-up reads the file from its start until a line has the number's key
 * anywhere in it. Lines are searched in the caller's buffer, where the text
 * then stays.
 */
#include "tolva2/files/msgdb.h"
#include "tolva2/base/trace.h"
#include "tolva2/files/reserve.h"
#include "unixtools/ux_owned.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <string_view>
#include <sys/stat.h>

namespace {

constexpr size_t SHARED_BUFFER = 1024;
constexpr size_t KEY_BUFFER = 16;

struct {
    ux_text name;
    char shared_text[SHARED_BUFFER];
} database;

/* The last character goes when it is part of a line end. */
void drop_line_end(std::string_view *text) {
    if (text->ends_with('\r') || text->ends_with('\n')) {
        text->remove_suffix(1);
    }
}

/* Reads lines into buffer until one has the number's key anywhere in it. */
bool find_line(FILE *stream, char *buffer, size_t size, int32_t number) {
    char key[KEY_BUFFER];
    snprintf(key, sizeof key, "m%i=", number);
    /* A line of one byte could hold no text and would never reach the end. */
    int limit = size < INT_MAX ? static_cast<int>(size) : INT_MAX;
    while (limit > 1 && fgets(buffer, limit, stream)) {
        if (strstr(buffer, key)) {
            return true;
        }
    }
    return false;
}

/* The database, or none. */
ux_file open_database() {
    return database.name ? open_file(database.name.get(), "re") : nullptr;
}

/* The text of that number, in place of all else in buffer: its length. */
int32_t find_text(FILE *stream, char *buffer, size_t size, int32_t number) {
    std::string_view text("");
    if (find_line(stream, buffer, size, number)) {
        text = strchr(buffer, '=') + 1;
    }
    drop_line_end(&text);
    drop_line_end(&text);
    memmove(buffer, text.data(), text.size());
    buffer[text.size()] = '\0';
    return static_cast<int32_t>(text.size());
}

} // namespace

bool msgdb_open(const char *name) {
    trace_in();
    struct stat status;
    if (ux_is_empty(name) || stat(name, &status) < 0) {
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = ENOENT;
        return false;
    }
    ux_text copy = ux_copy(name);
    if (!copy) {
        return false;
    }
    database.name = std::move(copy);
    return true;
}

void msgdb_close() {
    trace_in();
    database.name.reset();
}

const char *msgdb_get(int32_t number) {
    trace_in();
    int32_t length = msgdb_get_into(number, database.shared_text,
                                    sizeof database.shared_text);
    return length > 0 ? database.shared_text : nullptr;
}

const char *msgdb_peek(int32_t number) {
    ux_file file = open_database();
    return file && find_text(file.get(), database.shared_text,
                             sizeof database.shared_text, number) > 0
               ? database.shared_text
               : nullptr;
}

int32_t msgdb_get_into(int32_t number, char *buffer, size_t size) {
    trace_in();
    if (!buffer || size == 0) {
        return -1;
    }
    buffer[0] = '\0';
    ux_file file = open_database();
    return file ? msgdb_find(file.get(), buffer, size, number) : 0;
}

bool msgdb_lists(int32_t number) {
    trace_in();
    errno = ENOENT;
    ux_file file = open_database();
    if (!file) {
        return false;
    }
    errno = 0;
    return find_line(file.get(), database.shared_text,
                     sizeof database.shared_text, number);
}

int32_t msgdb_find(FILE *stream, char *buffer, size_t size, int32_t number) {
    trace_in();
    if (!stream || !buffer || size == 0) {
        return -1;
    }
    return find_text(stream, buffer, size, number);
}
