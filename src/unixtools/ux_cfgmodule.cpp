/*
 * The record of one setting: made, shown to developers as it comes and goes,
 * hashed and compared by its key, written as a line.
 */
#include "unixtools/ux_cfgmodule.h"
#include "tolva2/base/trace.h"
#include "unixtools/ux_hashtable.h"

#include <cstring>

namespace {

void show_text(const char *function, const char *name, const ux_text &text) {
    if (text) {
        debug_printf("DEBUG: %s(): %s: [%s] at: 0x%08lx\n", function, name,
                     text.get(), reinterpret_cast<unsigned long>(text.get()));
    }
}

void show_texts(const char *function, const cfgmodule *record) {
    show_text(function, "ident", record->ident);
    show_text(function, "value", record->value);
    show_text(function, "comment", record->comment);
}

/* Copies a text that may be null: false only when memory is exhausted. */
bool copy_text(ux_text *copy, const char *text) {
    *copy = ux_copy(text);
    return *copy || !text;
}

bool put(std::string_view text, FILE *stream) {
    return text.empty() ||
           fwrite(text.data(), 1, text.size(), stream) == text.size();
}

} // namespace

cfgmodule *new_cfgmodule(const char *ident, const char *value,
                         const char *comment) {
    trace_in();
    cfgmodule *record = ux_new<cfgmodule>();
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

void destroy_cfgmodule(void *data) {
    trace_in();
    auto *record = static_cast<cfgmodule *>(data);
    show_texts(__func__, record);
    ux_delete(record);
}

uint32_t hash_cfgmodule(const void *data) {
    trace_in();
    const auto *record = static_cast<const cfgmodule *>(data);
    uint32_t hash = ux_hash_string(record->ident ? record->ident.get() : "");
    debug_printf("DEBUG: hash = %u\n", hash);
    return hash;
}

int32_t match_cfgmodule(const void *left, const void *right) {
    trace_in();
    const auto *a = static_cast<const cfgmodule *>(left);
    const auto *b = static_cast<const cfgmodule *>(right);
    return a && b && a->ident && b->ident &&
           strcmp(a->ident.get(), b->ident.get()) == 0;
}

config_line view_cfgmodule(const cfgmodule *record) {
    return {ux_view(record->ident.get()), ux_view(record->value.get()),
            ux_view(record->comment.get())};
}

int32_t write_cfgmodule(const config_line *texts, FILE *stream) {
    trace_in();
    bool has_ident = !texts->ident.empty();
    bool has_mark = has_ident && !texts->comment.empty();
    return put(texts->ident, stream) && put(has_ident ? "=" : "", stream) &&
           put(has_ident ? texts->value : "", stream) &&
           put(has_mark ? " #" : "", stream) && put(texts->comment, stream) &&
           put("\n", stream);
}
