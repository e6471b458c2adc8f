/*
 * The three operations on a key=value file, by a table of rows: read it into
 * the rows' storage, write it anew, put the values of now into the old lines.
 */
#include "unixtools/ux_configfile.h"
#include "tolva2/base/trace.h"
#include "unixtools/ux_cfgline.h"
#include "unixtools/ux_cfgmerge.h"
#include "unixtools/ux_cfgmodule.h"
#include "unixtools/ux_number.h"

#include <cassert>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t INTEGER_TEXT = 63;
constexpr mode_t NEW_FILE_MASK = 026;

bool is_text_type(ux_option_type type) {
    return type == UX_OPTION_STRING || type == UX_OPTION_TEXT;
}

/* The text that a storage holds, or null. */
const char *text_in(const ux_storage &storage) {
    return storage.text ? storage.text->get() : nullptr;
}

ux_option_result set_integer(const ux_option *op, const char *value_text) {
    int32_t *storage = op->value.number;
    if (!storage) {
        return UX_OPTION_DONE;
    }
    if (value_text) {
        *storage = ux_atoi(value_text);
    } else if (op->default_value.number) {
        *storage = *op->default_value.number;
    } else {
        return UX_OPTION_NO_DEFAULT;
    }
    debug_printf("DEBUG: found [%d]\n", *storage);
    return UX_OPTION_DONE;
}

ux_option_result set_string(const ux_option *op, const char *value_text) {
    ux_text *storage = op->value.text;
    if (!storage) {
        return UX_OPTION_DONE;
    }
    if (!value_text) {
        value_text = text_in(op->default_value);
    }
    if (!value_text) {
        return UX_OPTION_NO_DEFAULT;
    }
    ux_text copy = ux_copy(value_text);
    if (!copy) {
        return UX_OPTION_NO_MEMORY;
    }
    *storage = std::move(copy);
    debug_printf("DEBUG: found [%s]\n", storage->get());
    return UX_OPTION_DONE;
}

/* What came of reading a file. */
enum class reading {
    whole,   /* to its end, and it held at least one line */
    nothing, /* there is no such file, or nothing in it */
    failed,  /* it, or what it says, is not known to the end */
};

/* A table of cfgmodule records: false when memory is exhausted. */
bool init_table(ux_hashtable *table, uint32_t buckets) {
    return ux_hashtable_init(table, buckets, hash_cfgmodule, match_cfgmodule,
                             destroy_cfgmodule) == 0;
}

/* Adds one setting; an earlier one with the same key gives way. */
bool store_setting(const config_line *parsed, ux_hashtable *table) {
    debug_printf("DEBUG: inserting [%s]\n", parsed->ident.data());
    void *data = new_cfgmodule(parsed->ident.data(), parsed->value.data(),
                               parsed->comment.data());
    if (!data) {
        return false;
    }
    int32_t result = ux_hashtable_replace(table, &data);
    /* The earlier one, or this one when it could not be added. */
    if (data) {
        destroy_cfgmodule(data);
    }
    return result >= 0;
}

/* The system lacks something, or is broken: that says nothing about a file. */
bool is_trouble(int error) {
    return error == ENOMEM || error == EMFILE || error == ENFILE ||
           error == EIO;
}

/* file_to_hashtable with a fuller answer, under its name in the trace. */
reading read_file(const char *path, ux_hashtable *table) {
    trace_in("file_to_hashtable");
    ux_file file(fopen(path, "re"));
    if (!file) {
        return is_trouble(errno) ? reading::failed : reading::nothing;
    }
    char line[CONFIG_LINE_BUFFER];
    config_line parsed;
    bool any = false;
    while (fgets(line, sizeof line, file.get())) {
        any = true;
        if (parse_line(line, &parsed) && parsed.ident.data() &&
            !store_setting(&parsed, table)) {
            return reading::failed;
        }
    }
    if (feof(file.get()) && !ferror(file.get())) {
        return any ? reading::whole : reading::nothing;
    }
    /* A directory can be opened, but is no file. */
    return errno == EISDIR ? reading::nothing : reading::failed;
}

/* Fills one row's storage from the table: false when memory is exhausted. */
bool fill_row(const ux_option *op, ux_hashtable *table) {
    cfgmodule key;
    key.ident = ux_copy(op->ident);
    if (!key.ident) {
        return false;
    }
    void *data = &key;
    const char *value_text = nullptr;
    if (ux_hashtable_lookup(table, &data) == 0) {
        value_text = static_cast<const cfgmodule *>(data)->value.get();
    }
    return set_option_value(op, value_text) != UX_OPTION_NO_MEMORY;
}

bool fill_rows(const ux_option *topic_table, ux_hashtable *table) {
    for (const ux_option *op = topic_table; op->ident; op++) {
        debug_printf("DEBUG: searching [%s]\n", op->ident);
        if (op->type != UX_OPTION_LITERAL && !fill_row(op, table)) {
            return false;
        }
    }
    return true;
}

/* Writes the current value of a row, if it has one: false on failure. */
bool write_value(const ux_option *op, FILE *file) {
    if (op->type == UX_OPTION_INTEGER && op->value.number) {
        return fprintf(file, "%d", *op->value.number) >= 0;
    }
    const char *text = is_text_type(op->type) ? text_in(op->value) : nullptr;
    return !text || fputs(text, file) != EOF;
}

/* Of a type that nobody knows, but with storage, the line is not ended. */
bool ends_line(const ux_option *op) {
    bool stored = op->value.number || op->value.text;
    return !stored || op->type == UX_OPTION_INTEGER || is_text_type(op->type);
}

bool write_row(const ux_option *op, FILE *file) {
    const char *separator = op->type == UX_OPTION_LITERAL ? "" : "=";
    return fprintf(file, "%s%s", op->ident, separator) >= 0 &&
           write_value(op, file) &&
           (!ends_line(op) || fputc('\n', file) != EOF);
}

/* Every row of the table; false too when it has none. */
bool write_rows(const ux_option *topic_table, FILE *file) {
    const ux_option *op = topic_table;
    while (!ux_is_empty(op->ident) && write_row(op, file)) {
        op++;
    }
    return op != topic_table && ux_is_empty(op->ident);
}

/* Adds the current value of a row to the table: false on failure. */
bool store_row(const ux_option *op, ux_hashtable *table) {
    char number[INTEGER_TEXT];
    const char *value_text = nullptr;
    if (op->type != UX_OPTION_INTEGER) {
        value_text = text_in(op->value);
    } else if (op->value.number) {
        snprintf(number, sizeof number, "%d", *op->value.number);
        value_text = number;
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

bool store_rows(const ux_option *topic_table, ux_hashtable *table) {
    for (const ux_option *op = topic_table; op->ident; op++) {
        bool known = op->type == UX_OPTION_INTEGER || is_text_type(op->type);
        if (known && !store_row(op, table)) {
            return false;
        }
    }
    return true;
}

/* The settings that no line of the old file was for. */
bool append_missing(const ux_option *topic_table, ux_hashtable *table,
                    FILE *merged) {
    for (const ux_option *op = topic_table; op->ident; op++) {
        if (op->type != UX_OPTION_LITERAL &&
            !merge_setting(op->ident, {}, table, merged)) {
            return false;
        }
    }
    return true;
}

/* The old file with the values of now, in another. */
bool merge_file(const char *path, const ux_option *topic_table,
                ux_hashtable *table, FILE *merged) {
    ux_file config(fopen(path, "re"));
    return config && merge_lines(config.get(), merged, table) &&
           append_missing(topic_table, table, merged);
}

} // namespace

ux_option_result set_option_value(const ux_option *op, const char *value_text) {
    trace_in();
    assert(op && op->type && op->ident);
    debug_printf("DEBUG: type=  [%d]\n", op->type);
    debug_printf("DEBUG: value=  [%s]\n", value_text ? value_text : "NULL");
    ux_option_result result = UX_OPTION_DONE;
    if (op->type == UX_OPTION_INTEGER) {
        result = set_integer(op, value_text);
    } else if (is_text_type(op->type)) {
        result = set_string(op, value_text);
    }
    trace_out();
    return result;
}

int32_t file_to_hashtable(const char *path, ux_hashtable *table) {
    return read_file(path, table) == reading::whole;
}

int32_t ux_readconfig(const char *path, const ux_option *topic_table,
                      uint32_t buckets, int32_t missing_ok) {
    trace_in();
    assert(topic_table);
    ux_hashtable table;
    if (!init_table(&table, buckets)) {
        return 0;
    }
    reading got = read_file(path, &table);
    bool usable =
        got == reading::whole || (got == reading::nothing && missing_ok);
    bool filled = usable && fill_rows(topic_table, &table);
    ux_hashtable_destroy(&table);
    return filled;
}

int32_t ux_writeconfig(const char *path, const ux_option *topic_table) {
    trace_in();
    assert(topic_table);
    umask(NEW_FILE_MASK);
    ux_file file(fopen(path, "we"));
    if (!file) {
        return 0;
    }
    bool written = write_rows(topic_table, file.get());
    /* What is still buffered may be what does not fit the disk. */
    if (!ux_close(std::move(file)) || !written) {
        unlink(path);
        return 0;
    }
    return 1;
}

int32_t hashtable_to_file(const char *path, const ux_option *topic_table,
                          ux_hashtable *table) {
    trace_in();
    ux_file merged(tmpfile());
    if (!merged) {
        return 0;
    }
    bool ret = merge_file(path, topic_table, table, merged.get()) &&
               replace_file(path, merged.get());
    assert(ret);
    return 1;
}

int32_t ux_rewriteconfig(const char *path, const ux_option *topic_table,
                         uint32_t buckets) {
    trace_in();
    assert(topic_table);
    ux_hashtable table;
    if (!init_table(&table, buckets)) {
        return 0;
    }
    bool rewritten = store_rows(topic_table, &table) &&
                     hashtable_to_file(path, topic_table, &table) != 0;
    ux_hashtable_destroy(&table);
    return rewritten;
}
