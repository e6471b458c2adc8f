#include "unixtools/ux_configfile.h"
#include "tolva2/base/trace.h"
#include "unixtools/ux_number.h"

#include <cassert>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr size_t LINE_BUFFER = 4096;
constexpr size_t COPY_BLOCK = 4096;
constexpr size_t INTEGER_TEXT = 63;
constexpr mode_t NEW_FILE_MASK = 026;
constexpr size_t KEY_MINIMUM = 2;

bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

/* Shows one text of a record, for the functions that make and free them. */
void show_text(const char *function, const char *name, const char *text)
{
    if (text) {
        debug_printf("DEBUG: %s(): %s: [%s] at: 0x%08lx\n", function, name,
                     text, reinterpret_cast<unsigned long>(text));
    }
}

void show_texts(const char *function, const cfgmodule *record)
{
    show_text(function, "ident", record->ident);
    show_text(function, "value", record->value);
    show_text(function, "comment", record->comment);
}

/* Copies a text that may be null: false only when memory is exhausted. */
bool copy_text(char **copy, const char *text)
{
    *copy = text ? strdup(text) : nullptr;
    return *copy || !text;
}

} // namespace

cfgmodule *new_cfgmodule(const char *ident, const char *value,
                         const char *comment)
{
    trace_in();
    auto *record = static_cast<cfgmodule *>(calloc(1, sizeof(cfgmodule)));
    if (!record) {
        return nullptr;
    }
    if (!copy_text(&record->ident, ident) ||
        !copy_text(&record->value, value) ||
        !copy_text(&record->comment, comment)) {
        destroy_cfgmodule(record);
        return nullptr;
    }
    show_texts(__func__, record);
    return record;
}

void destroy_cfgmodule(void *data)
{
    trace_in();
    auto *record = static_cast<cfgmodule *>(data);
    show_texts(__func__, record);
    free(record->ident);
    free(record->value);
    free(record->comment);
    free(record);
}

uint32_t hash_cfgmodule(const void *data)
{
    trace_in();
    const auto *record = static_cast<const cfgmodule *>(data);
    uint32_t hash = ux_hash_string(record->ident ? record->ident : "");
    debug_printf("DEBUG: hash = %u\n", hash);
    return hash;
}

int32_t match_cfgmodule(const void *left, const void *right)
{
    trace_in();
    const auto *a = static_cast<const cfgmodule *>(left);
    const auto *b = static_cast<const cfgmodule *>(right);
    return a && b && a->ident && b->ident && strcmp(a->ident, b->ident) == 0;
}

char *strip(char *text)
{
    trace_in();
    text += strspn(text, " \t");
    size_t length = strlen(text);
    while (length > 0 && strchr("\n\r\t ", text[length - 1])) {
        text[--length] = '\0';
    }
    return length > 0 ? text : nullptr;
}

char *strip_newline(char *text)
{
    trace_in();
    size_t length = strlen(text);
    while (length > 0 && strchr("\n\r", text[length - 1])) {
        text[--length] = '\0';
    }
    return length > 0 ? text : nullptr;
}

namespace
{

/* Inside a value: from its first character to the comment or line end. */
int32_t parse_value(char *text, cfgmodule *result)
{
    bool quoted = false;
    bool escaped = false;
    for (char *c = text; *c; c++) {
        if (*c == '\n') {
            *c = '\0';
            break;
        }
        if (*c == '"' && !escaped) {
            quoted = !quoted;
        } else if (*c == '\\') {
            /* Only another backslash ends an escape. */
            escaped = !escaped;
        } else if (*c == '#' && !quoted && !escaped) {
            *c = '\0';
            result->comment = strip_newline(c + 1);
            break;
        }
    }
    result->value = strip(text);
    return 1;
}

/* Behind the "=": a value, a comment or nothing. */
int32_t parse_after_key(char *text, cfgmodule *result)
{
    while (is_blank(*text)) {
        text++;
    }
    if (*text == '\0' || *text == '\n') {
        return 1;
    }
    if (*text == '#') {
        result->comment = strip_newline(text + 1);
        return 1;
    }
    return parse_value(text, result);
}

/* In the key, which starts at text. */
int32_t parse_key(char *text, cfgmodule *result)
{
    size_t length = strcspn(text, "=#\n");
    if (text[length] != '=' || length < KEY_MINIMUM) {
        return 0;
    }
    text[length] = '\0';
    result->ident = strip(text);
    return parse_after_key(text + length + 1, result);
}

} // namespace

int32_t parse_line(char *line, cfgmodule *result)
{
    trace_in();
    *result = cfgmodule{};
    char *text = line;
    while (is_blank(*text)) {
        text++;
    }
    switch (*text) {
    case '#':
        result->comment = strip_newline(line);
        return 1;
    case '\n':
        return 1;
    case '=':
    case '\0':
        return 0;
    default:
        return parse_key(text, result);
    }
}

namespace
{

int32_t set_integer(const ux_option *op, const char *value_text)
{
    auto *storage = static_cast<int32_t *>(op->value);
    if (!storage) {
        return 1;
    }
    if (value_text) {
        *storage = ux_atoi(value_text);
    } else if (op->default_value) {
        *storage = *static_cast<const int32_t *>(op->default_value);
    } else {
        return 0;
    }
    debug_printf("DEBUG: found [%d]\n", *storage);
    return 1;
}

int32_t set_string(const ux_option *op, const char *value_text)
{
    auto *storage = static_cast<char **>(op->value);
    if (!storage) {
        return 1;
    }
    if (!value_text && op->default_value) {
        value_text = *static_cast<char *const *>(op->default_value);
    }
    if (!value_text) {
        return 0;
    }
    char *copy = strdup(value_text);
    if (!copy) {
        return 0;
    }
    *storage = copy;
    debug_printf("DEBUG: found [%s]\n", *storage);
    return 1;
}

bool is_string_type(int32_t type)
{
    return type == UX_OPTION_STRING || type == UX_OPTION_TEXT;
}

} // namespace

int32_t set_option_value(ux_option *op, const char *value_text)
{
    trace_in();
    assert(op && op->type && op->ident);
    debug_printf("DEBUG: type=  [%d]\n", op->type);
    debug_printf("DEBUG: value=  [%s]\n", value_text ? value_text : "NULL");
    int32_t result = 1;
    if (op->type == UX_OPTION_INTEGER) {
        result = set_integer(op, value_text);
    } else if (is_string_type(op->type)) {
        result = set_string(op, value_text);
    }
    trace_out();
    return result;
}

namespace
{

/* Adds one setting; an earlier one with the same key gives way. */
bool store_setting(const cfgmodule *parsed, ux_hashtable *table)
{
    debug_printf("DEBUG: inserting [%s]\n", parsed->ident);
    cfgmodule *record =
        new_cfgmodule(parsed->ident, parsed->value, parsed->comment);
    if (!record) {
        return false;
    }
    void *data = record;
    int32_t result = ux_hashtable_replace(table, &data);
    if (data) {
        destroy_cfgmodule(data);
    }
    return result >= 0;
}

/* A table of cfgmodule records: false when memory is exhausted. */
bool init_table(ux_hashtable *table, uint32_t buckets)
{
    return ux_hashtable_init(table, buckets, hash_cfgmodule, match_cfgmodule,
                             destroy_cfgmodule) == 0;
}

} // namespace

int32_t file_to_hashtable(const char *path, ux_hashtable *table)
{
    trace_in();
    FILE *file = fopen(path, "re");
    if (!file) {
        return 0;
    }
    char line[LINE_BUFFER];
    bool any = false;
    bool stored = true;
    while (stored && fgets(line, sizeof line, file)) {
        cfgmodule parsed;
        any = true;
        if (parse_line(line, &parsed) && parsed.ident) {
            stored = store_setting(&parsed, table);
        }
    }
    bool whole = feof(file) && !ferror(file);
    fclose(file);
    return any && stored && whole;
}

int32_t ux_readconfig(const char *path, ux_option *topic_table,
                      uint32_t buckets, int32_t missing_ok)
{
    trace_in();
    assert(topic_table);
    ux_hashtable table;
    if (!init_table(&table, buckets)) {
        return 0;
    }
    if (!file_to_hashtable(path, &table) && !missing_ok) {
        ux_hashtable_destroy(&table);
        return 0;
    }
    for (ux_option *op = topic_table; op->ident; op++) {
        debug_printf("DEBUG: searching [%s]\n", op->ident);
        if (op->type == UX_OPTION_LITERAL) {
            continue;
        }
        cfgmodule key{const_cast<char *>(op->ident), nullptr, nullptr};
        void *data = &key;
        const char *value_text = nullptr;
        if (ux_hashtable_lookup(&table, &data) == 0) {
            value_text = static_cast<const cfgmodule *>(data)->value;
        }
        set_option_value(op, value_text);
    }
    ux_hashtable_destroy(&table);
    return 1;
}

int32_t write_cfgmodule(const cfgmodule *record, FILE *stream)
{
    trace_in();
    bool has_ident = record->ident && *record->ident;
    if (has_ident) {
        const char *value = record->value ? record->value : "";
        if (fprintf(stream, "%s=%s", record->ident, value) < 0) {
            return 0;
        }
    }
    if (record->comment && *record->comment) {
        if (fprintf(stream, "%s%s", has_ident ? " #" : "", record->comment) <
            0) {
            return 0;
        }
    }
    return fputc('\n', stream) != EOF;
}

namespace
{

/* Writes the current value of a row and its line end: false on failure. */
bool write_value(const ux_option *op, FILE *file)
{
    if (op->value) {
        if (op->type == UX_OPTION_INTEGER) {
            if (fprintf(file, "%d", *static_cast<int32_t *>(op->value)) < 0) {
                return false;
            }
        } else if (is_string_type(op->type)) {
            const char *text = *static_cast<char **>(op->value);
            if (text && fputs(text, file) == EOF) {
                return false;
            }
        } else {
            /* Of a type that nobody knows not even the line is ended. */
            return true;
        }
    }
    return fputc('\n', file) != EOF;
}

bool write_row(const ux_option *op, FILE *file)
{
    const char *separator = op->type == UX_OPTION_LITERAL ? "" : "=";
    return fprintf(file, "%s%s", op->ident, separator) >= 0 &&
           write_value(op, file);
}

} // namespace

int32_t ux_writeconfig(const char *path, ux_option *topic_table)
{
    trace_in();
    assert(topic_table);
    umask(NEW_FILE_MASK);
    FILE *file = fopen(path, "we");
    if (!file) {
        return 0;
    }
    bool written = false;
    for (ux_option *op = topic_table; op->ident && *op->ident; op++) {
        written = write_row(op, file);
        if (!written) {
            break;
        }
    }
    /* What is still buffered may be what does not fit the disk. */
    if (fclose(file) != 0) {
        written = false;
    }
    if (!written) {
        unlink(path);
    }
    return written;
}

namespace
{

/* Adds the current value of a row to the table: false on failure. */
bool store_row(const ux_option *op, ux_hashtable *table)
{
    char number[INTEGER_TEXT];
    const char *value_text = nullptr;
    if (op->type == UX_OPTION_INTEGER) {
        if (op->value) {
            snprintf(number, sizeof number, "%d",
                     *static_cast<int32_t *>(op->value));
            value_text = number;
        }
    } else if (op->value) {
        value_text = *static_cast<char **>(op->value);
    }
    cfgmodule *record = new_cfgmodule(op->ident, value_text, nullptr);
    if (!record) {
        return false;
    }
    int32_t result = ux_hashtable_insert(table, record);
    if (result != 0) {
        destroy_cfgmodule(record);
    }
    return result >= 0;
}

/* Writes the table's record of a key, if it is still there, and frees it. */
bool write_setting(const char *ident, char *comment, ux_hashtable *table,
                   FILE *file)
{
    cfgmodule key{const_cast<char *>(ident), nullptr, nullptr};
    void *data = &key;
    if (ux_hashtable_remove(table, &data) != 0) {
        return true;
    }
    auto *record = static_cast<cfgmodule *>(data);
    cfgmodule line{record->ident, record->value, comment};
    bool written = write_cfgmodule(&line, file) != 0;
    destroy_cfgmodule(record);
    return written;
}

/* The lines of the old file with the values of now: false on failure. */
bool merge_lines(FILE *config, FILE *temporary, ux_hashtable *table)
{
    char line[LINE_BUFFER];
    while (fgets(line, sizeof line, config)) {
        cfgmodule parsed;
        bool written = true;
        if (!parse_line(line, &parsed)) {
            continue;
        }
        if (parsed.ident) {
            written =
                write_setting(parsed.ident, parsed.comment, table, temporary);
        } else {
            written = write_cfgmodule(&parsed, temporary) != 0;
        }
        if (!written) {
            return false;
        }
    }
    return !ferror(config);
}

bool append_missing(const ux_option *topic_table, ux_hashtable *table,
                    FILE *temporary)
{
    for (const ux_option *op = topic_table; op->ident; op++) {
        if (op->type != UX_OPTION_LITERAL &&
            !write_setting(op->ident, nullptr, table, temporary)) {
            return false;
        }
    }
    return true;
}

/* Copies the rest of one file to another, on over a short write. */
bool copy_rest(FILE *from, FILE *to)
{
    char block[COPY_BLOCK];
    bool whole = true;
    size_t length = 0;
    while ((length = fread(block, 1, sizeof block, from)) > 0) {
        if (fwrite(block, 1, length, to) != length) {
            whole = false;
        }
    }
    return whole && !ferror(from);
}

/* Puts the merged lines in the place of the old file. */
bool replace_file(const char *path, FILE *temporary)
{
    if (fflush(temporary) != 0) {
        return false;
    }
    rewind(temporary);
    FILE *config = fopen(path, "we");
    if (!config) {
        return false;
    }
    bool whole = copy_rest(temporary, config);
    return fclose(config) == 0 && whole;
}

} // namespace

int32_t hashtable_to_file(const char *path, ux_option *topic_table,
                          ux_hashtable *table)
{
    trace_in();
    FILE *temporary = tmpfile();
    if (!temporary) {
        return 0;
    }
    bool ret = false;
    FILE *config = fopen(path, "re");
    if (config) {
        ret = merge_lines(config, temporary, table) &&
              append_missing(topic_table, table, temporary);
        fclose(config);
    }
    ret = ret && replace_file(path, temporary);
    fclose(temporary);
    assert(ret);
    return 1;
}

int32_t ux_rewriteconfig(const char *path, ux_option *topic_table,
                         uint32_t buckets)
{
    trace_in();
    assert(topic_table);
    ux_hashtable table;
    if (!init_table(&table, buckets)) {
        return 0;
    }
    bool stored = true;
    for (ux_option *op = topic_table; stored && op->ident; op++) {
        if (op->type == UX_OPTION_INTEGER || is_string_type(op->type)) {
            stored = store_row(op, &table);
        }
    }
    int32_t result = 0;
    if (stored) {
        result = hashtable_to_file(path, topic_table, &table);
    }
    ux_hashtable_destroy(&table);
    return result;
}
