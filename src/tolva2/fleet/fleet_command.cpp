/*
 * The words of the command line as a request. Whether the first is a command
 * is up to the table of the listener.
 */
#include "tolva2/fleet/fleet_command.h"
#include "tolva2/base/codes.h"
#include "tolva2/files/command_params.h"
#include "tolva2/files/request.h"
#include "tolva2/fleet/fleet_text.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace {

constexpr std::string_view PLAIN_LETTERS =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._,:/@%+=";

/* How further words are treated. */
enum class quoting {
    shell, /* as single words of a shell */
    none,  /* as they are: no shell reads them */
    plain, /* only words that need no quotes */
};

struct command_kind {
    const char *word;
    quoting words;
};

/* In the order of command_index. */
constexpr std::array<command_kind, 8> KINDS{{
    {"SHUTDOWN", quoting::shell},
    {"EXECUTE", quoting::shell},
    {"MSG_ID", quoting::plain},
    {"MSG_TEXT", quoting::shell},
    {"MAIL_ID", quoting::plain},
    {"MAIL_TEXT", quoting::plain},
    {"LOG_ID", quoting::none},
    {"LOG_TEXT", quoting::none},
}};
static_assert(KINDS.size() == COMMAND_LOG_TEXT + 1);

constexpr size_t LONGEST_COMPARED = 16;
constexpr size_t REASON_SHOWN = 64;

/* How many letters have to be changed, added or taken to make b of a. */
size_t distance(std::string_view a, std::string_view b) {
    std::array<size_t, LONGEST_COMPARED + 1> row{};
    for (size_t j = 0; j <= b.size(); j++) {
        row[j] = j;
    }
    for (size_t i = 1; i <= a.size(); i++) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); j++) {
            size_t above = row[j];
            bool same =
                toupper(static_cast<unsigned char>(a[i - 1])) == b[j - 1];
            row[j] = std::min(
                {above + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

fleet_command fault(std::initializer_list<std::string_view> parts) {
    fleet_command command;
    command.fault = ux_join(parts);
    return command;
}

/* The first word of a text. */
std::string_view first_word(std::string_view text) {
    size_t start = std::min(text.find_first_not_of(PARAM_BLANKS), text.size());
    text.remove_prefix(start);
    return part_of(text, 0, text.find_first_of(PARAM_BLANKS));
}

/* The index of the command that a text begins with. */
command_index command_of(std::string_view text) {
    ux_text word = ux_join({first_word(text)});
    return is_V2command(word.get());
}

/* Appends a further word: false when it cannot stand there. */
bool append_word(text_buffer *text, const char *word, quoting words) {
    std::string_view view(word);
    if (words == quoting::shell) {
        ux_text quoted = shell_quoted(word);
        append_text(text, ux_view(quoted.get()));
        return true;
    }
    append_text(text, view);
    return words == quoting::none ||
           (!view.empty() &&
            view.find_first_not_of(PLAIN_LETTERS) == std::string_view::npos);
}

/* What is sent, or what keeps it from being sent. */
fleet_command finish(text_buffer text) {
    /* Header, blank, text and terminator share one buffer. */
    if (REQUEST_TEXT_OFFSET + text.length >= TEXT_BUFFER) {
        return fault({"the command is too long: a request has 4095 bytes"});
    }
    append_text(&text, {"\0", 1});
    fleet_command command;
    if (!text.incomplete) {
        command.text = std::move(text.bytes);
    }
    return command;
}

} // namespace

const char *fleet_command::shown() const {
    return text.get() + sizeof VERB_EXECSTATUS;
}

ux_text shell_quoted(const char *word) {
    text_buffer text;
    append_text(&text, "'");
    for (; *word; word++) {
        append_text(&text, *word == '\'' ? std::string_view("'\\''")
                                         : std::string_view(word, 1));
    }
    append_text(&text, {"'\0", 2});
    return text.incomplete ? ux_text() : std::move(text.bytes);
}

const char *nearest_command(std::string_view word) {
    word = part_of(word, 0, LONGEST_COMPARED);
    return std::min_element(
               KINDS.begin(), KINDS.end(),
               [word](const command_kind &a, const command_kind &b) {
                   return distance(word, a.word) < distance(word, b.word);
               })
        ->word;
}

fleet_command make_command(std::span<char *const> words) {
    std::string_view first = words.empty() ? "" : words[0];
    command_index index = command_of(first);
    if (index == COMMAND_UNKNOWN) {
        std::string_view word = first_word(first);
        char shown[REASON_SHOWN];
        show_answer(shown, sizeof shown, word);
        return fault({"unknown command `", shown, "': did you mean ",
                      nearest_command(word), "?"});
    }
    const command_kind &kind = KINDS[static_cast<size_t>(index)];
    text_buffer text;
    append_text(&text, VERB_EXECSTATUS);
    append_text(&text, " ");
    append_text(&text, first);
    for (const char *word : words.subspan(1)) {
        append_text(&text, " ");
        if (!append_word(&text, word, kind.words)) {
            return fault({"parameters of ", kind.word,
                          " that need quotes: write the whole command as one "
                          "argument"});
        }
    }
    return finish(std::move(text));
}
