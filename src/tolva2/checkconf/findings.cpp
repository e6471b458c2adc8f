/*
 * A list of findings that is in order at any time: each new one goes behind
 * those of its line.
 */
#include "tolva2/checkconf/findings.h"
#include "tolva2/base/process_state.h"
#include "tolva2/base/trace.h"
#include "unixtools/ux_nodes.h"
#include "unixtools/ux_owned.h"
#include "unixtools/ux_portable.h"

#include <cctype>
#include <cstdarg>
#include <string_view>

namespace {

struct finding {
    int32_t line;
    severity how_bad;
    ux_text text;
};

void destroy_finding(void *data) { ux_delete(static_cast<finding *>(data)); }

/* The element that a finding of that line goes behind, or null: it is the
 * first. */
ux_list_element *last_up_to(const ux_list *list, int32_t line) {
    ux_list_element *before = nullptr;
    for (ux_list_element *node : ux_nodes(list)) {
        if (ux_record<finding>(node)->line <= line) {
            before = node;
        }
    }
    return before;
}

bool is_known(const ux_list *list, int32_t line, std::string_view text) {
    for (const finding *one : ux_records<finding>(list)) {
        if (one->line == line && one->text.get() == text) {
            return true;
        }
    }
    return false;
}

/* False when it is known already. */
bool add_finding(ux_list *list, int32_t line, severity how_bad,
                 const char *format, va_list args) {
    ux_text text = ux_format(format, args);
    if (!text) {
        no_memory_to_check();
    }
    if (is_known(list, line, text.get())) {
        return false;
    }
    ux_owner<finding> one(ux_new<finding>());
    if (!one) {
        no_memory_to_check();
    }
    *one = {line, how_bad, std::move(text)};
    ux_list_element *before = last_up_to(list, line);
    int32_t added = before ? ux_list_ins_next(list, before, one.get())
                           : ux_list_ins_prev(list, list->head, one.get());
    if (added != 0) {
        no_memory_to_check();
    }
    [[maybe_unused]] finding *lists_own = one.release();
    return true;
}

void put_plain(std::string_view text, FILE *stream) {
    for (char character : text) {
        auto byte = static_cast<unsigned char>(character);
        fputc(iscntrl(byte) ? '?' : byte, stream);
    }
}

} // namespace

findings::findings() { ux_list_init(&list, destroy_finding); }

findings::~findings() { ux_list_destroy(&list); }

void findings::error(int32_t line, const char *format, ...) {
    va_list args;
    va_start(args, format);
    error_count += add_finding(&list, line, severity::error, format, args);
    va_end(args);
}

void findings::warning(int32_t line, const char *format, ...) {
    va_list args;
    va_start(args, format);
    add_finding(&list, line, severity::warning, format, args);
    va_end(args);
}

void findings::say(const char *file, FILE *stream) const {
    for (const finding *one : ux_records<finding>(&list)) {
        put_plain(file, stream);
        fprintf(stream, ":%d: %s: ", one->line,
                one->how_bad == severity::error ? "error" : "warning");
        put_plain(one->text.get(), stream);
        fputc('\n', stream);
    }
}

void no_memory_to_check() {
    fatal("%s: malloc(): %s\n", progname, strerror(ENOMEM));
}
