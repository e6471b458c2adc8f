/*
 * Goes through a file line by line: what is a setting takes its value from the
 * table, what is a comment or blank stays, what is neither goes. Not before
 * all of it is merged is the old file touched.
 */
#include "unixtools/ux_cfgmerge.h"
#include "unixtools/ux_cfgmodule.h"

namespace {

constexpr size_t COPY_BLOCK = 4096;

/* One line, in place; one that is no use is written nowhere. */
bool merge_line(char *line, FILE *merged, ux_hashtable *table) {
    config_line parsed;
    if (!parse_line(line, &parsed)) {
        return true;
    }
    const char *ident = parsed.ident.data();
    return ident ? merge_setting(ident, parsed.comment, table, merged)
                 : write_cfgmodule(&parsed, merged) != 0;
}

/* Copies the rest of one file to another, on over a short write. */
bool copy_rest(FILE *from, FILE *to) {
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

} // namespace

bool merge_setting(const char *ident, std::string_view comment,
                   ux_hashtable *table, FILE *merged) {
    cfgmodule key;
    key.ident = ux_copy(ident);
    if (!key.ident) {
        return false;
    }
    void *data = &key;
    if (ux_hashtable_remove(table, &data) != 0) {
        return true;
    }
    config_line texts = view_cfgmodule(static_cast<const cfgmodule *>(data));
    texts.comment = comment;
    bool written = write_cfgmodule(&texts, merged) != 0;
    destroy_cfgmodule(data);
    return written;
}

bool merge_lines(FILE *config, FILE *merged, ux_hashtable *table) {
    char line[CONFIG_LINE_BUFFER];
    while (fgets(line, sizeof line, config)) {
        if (!merge_line(line, merged, table)) {
            return false;
        }
    }
    return feof(config) && !ferror(config);
}

bool replace_file(const char *path, FILE *merged) {
    if (fflush(merged) != 0) {
        return false;
    }
    rewind(merged);
    ux_file config(fopen(path, "we"));
    if (!config) {
        return false;
    }
    bool whole = copy_rest(merged, config.get());
    return ux_close(std::move(config)) && whole;
}
