/*
 * Texts: requests and their parameters, the numbered messages, and the log.
 */
#include "model.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace simulate {

namespace {

const char *const BLANKS = " \t";

/* The next word of *rest, and one of the characters that end it, go. */
bool cut_word(std::string *rest, const char *ends, std::string *word) {
    size_t start = rest->find_first_not_of(ends);
    if (start == std::string::npos) {
        rest->clear();
        return false;
    }
    size_t end = std::min(rest->find_first_of(ends, start), rest->size());
    *word = rest->substr(start, end - start);
    *rest = rest->substr(std::min(end + 1, rest->size()));
    return true;
}

std::string trimmed(const std::string &text) {
    size_t first = text.find_first_not_of(BLANKS);
    if (first == std::string::npos) {
        return "";
    }
    std::string kept =
        text.substr(first, text.find_last_not_of(BLANKS) + 1 - first);
    if (kept.size() >= 2 && kept.front() == '"' && kept.back() == '"' &&
        std::count(kept.begin(), kept.end(), '"') == 2) {
        return kept.substr(1, kept.size() - 2);
    }
    return kept;
}

/* How many characters of text at that place ask for a parameter. */
size_t asks(const std::string &text, size_t at) {
    auto character = [&](size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
    };
    if (character(at) == '%') {
        return character(at + 1) == 's' && isalnum(character(at + 2)) == 0 ? 2
                                                                           : 0;
    }
    if (character(at) != '#') {
        return 0;
    }
    size_t end = at + 1;
    while (isupper(character(end)) != 0 || isdigit(character(end)) != 0 ||
           character(end) == '_') {
        end++;
    }
    bool closed = character(end) == 0 || character(end) == ' ' ||
                  character(end) == '\t' || ispunct(character(end)) != 0;
    return end > at + 1 && closed ? end - at : 0;
}

bool next_parameter(std::string *rest, std::string *one) {
    if (!rest->empty() && rest->front() == '"') {
        size_t end = std::min(rest->find('"', 1), rest->size());
        *one = rest->substr(1, end - 1);
        *rest = rest->substr(std::min(end + 1, rest->size()));
        return true;
    }
    return cut_word(rest, BLANKS, one);
}

struct day_of_year {
    int64_t year;
    int month, day;
};

/* Counted off year by year and month by month. */
day_of_year calendar(int64_t clock) {
    int64_t days = clock >= 0 ? clock / 86400 : (clock - 86399) / 86400;
    int64_t year = 1970;
    auto leap = [](int64_t y) {
        return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
    };
    while (days >= (leap(year) ? 366 : 365)) {
        days -= leap(year) ? 366 : 365;
        year++;
    }
    const int lengths[] = {
        31, leap(year) ? 29 : 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    int month = 0;
    while (days >= lengths[month]) {
        days -= lengths[month];
        month++;
    }
    return {year, month + 1, static_cast<int>(days) + 1};
}

} // namespace

std::string dotted(uint32_t address) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        text +=
            (text.empty() ? "" : ".") +
            std::to_string((address >> static_cast<unsigned>(shift)) & 255U);
    }
    return text;
}

std::string date_text(int64_t clock) {
    day_of_year day = calendar(clock);
    char text[64];
    snprintf(text, sizeof text, "%02d/%02d/%04d", day.month, day.day,
             static_cast<int>(day.year));
    return text;
}

std::string time_text(int64_t clock) {
    auto second = static_cast<int>(clock % 86400);
    char text[64];
    snprintf(text, sizeof text, "%02d:%02d:%02d", second / 3600,
             second / 60 % 60, second % 60);
    return text;
}

request model::read_request(std::string text) {
    const size_t header = 23;
    request found;
    if (strncasecmp(text.c_str(), "CONNECT TO TOLVA (SEND)", header) != 0) {
        return found;
    }
    if (text.size() == header) {
        found.kind = 1;
        return found;
    }
    found.kind = 2;
    std::string rest = text.substr(header + 1);
    std::string verb;
    std::string word;
    if (rest.empty()) {
        found.fault = 820;
        return found;
    }
    found.fault = 819;
    if (!cut_word(&rest, BLANKS, &verb)) {
        return found;
    }
    found.wants_status = strcasecmp(verb.c_str(), "MSG_EXECSTATUS") == 0;
    if (!found.wants_status && strcasecmp(verb.c_str(), "MSG_EXECUTE") != 0) {
        return found;
    }
    if (!cut_word(&rest, BLANKS, &word)) {
        return found;
    }
    const char *words[] = {"SHUTDOWN", "EXECUTE",   "MSG_ID", "MSG_TEXT",
                           "MAIL_ID",  "MAIL_TEXT", "LOG_ID", "LOG_TEXT"};
    found.fault = 820;
    for (int i = 0; i < 8; i++) {
        if (strcasecmp(word.c_str(), words[i]) == 0) {
            found.command = i;
            found.fault = 0;
            bool any = false;
            found.parameters = read_parameters(i, rest, &any);
            if (!any) {
                found.parameters.clear();
            }
        }
    }
    return found;
}

std::string model::read_parameters(int command, std::string rest, bool *found) {
    bool by_number = command == 2 || command == 4 || command == 6;
    bool mail = command == 4 || command == 5;
    std::string word;
    int number = 0;
    if (by_number) {
        number = cut_word(&rest, BLANKS, &word) ? atoi(word.c_str()) : 0;
        if (number == 0) {
            return "";
        }
    }
    std::string recipient;
    if (mail && !cut_word(&rest, " \t$", &recipient)) {
        return "";
    }
    *found = true;
    if (command == 5) {
        std::string text = trimmed(rest);
        return text.empty() ? recipient : recipient + " \"" + text + "\"";
    }
    if (!by_number) {
        return trimmed(rest);
    }
    if (command == 4 && memory_fails(CALL_MALLOC)) {
        return recipient + " ";
    }
    std::string text;
    if (!look_up(number, &text)) {
        *found = mail;
        return mail ? recipient + " " : "";
    }
    std::string parameters = trimmed(rest);
    bool filled = true;
    std::string result = fill(text, &parameters, &filled);
    if (!mail) {
        return filled ? result : text;
    }
    if (!filled || result.empty()) {
        return recipient + " ";
    }
    return (recipient + "  \"" + result + "\"").substr(0, 4095);
}

std::string model::fill(const std::string &text, const std::string *parameters,
                        bool *filled) {
    const size_t most = 4095;
    *filled = !memory_fails(CALL_STRDUP);
    std::string rest = *parameters;
    std::string result;
    for (size_t at = 0; at < text.size() && result.size() < most;) {
        size_t length = asks(text, at);
        std::string one;
        if (length > 0 && next_parameter(&rest, &one)) {
            result += one;
            at += length;
        } else {
            result += text[at++];
        }
    }
    return result.substr(0, most);
}

bool model::opens(which_file which) {
    while (next_is(act::open_failed) && peek()->who == which) {
        const fact &failure = take(act::open_failed, "");
        bool out = failure.error == EMFILE || failure.error == ENFILE;
        if (!out || failure.held == 0) {
            return false;
        }
        /* There was a reserve: it is given up, and there is another try. */
    }
    return true;
}

bool model::look_up(int number, std::string *text) {
    if (!opens(FILE_TEXTS)) {
        return false;
    }
    take(act::opened, "a look at text " + std::to_string(number));
    std::string key = "m" + std::to_string(number) + "=";
    size_t start = 0;
    const std::string &all = settings.texts;
    while (start < all.size()) {
        size_t end = std::min(all.find('\n', start), all.size());
        std::string line = all.substr(start, end - start);
        start = end + 1;
        if (line.find(key) != std::string::npos) {
            *text = line.substr(line.find('=') + 1);
            if (!text->empty() && text->back() == '\r') {
                text->pop_back();
            }
            return !text->empty();
        }
    }
    return false;
}

bool model::report(int number, const std::string &with) {
    std::string text;
    if (!look_up(number, &text)) {
        return false;
    }
    size_t at = text.find("%s");
    if (at != std::string::npos) {
        text.replace(at, 2, with);
    }
    return write_line(text.substr(0, 1023));
}

void model::log_error(int error, const char *prefix) {
    write_line(std::string(prefix) + strerror(error));
}

bool model::write_line(const std::string &text) {
    const char *white = " \t\n\v\f\r";
    std::string said = text;
    said.erase(0, std::min(said.find_first_not_of(white), said.size()));
    if (strncasecmp(said.c_str(), "TOLVA ", 6) == 0) {
        said.erase(0, 6);
        said.erase(0, std::min(said.find_first_not_of(white), said.size()));
    }
    if (said.rfind("ERROR: ", 0) == 0) {
        said = "error: " + said.substr(7);
    } else if (said.empty()) {
        return false;
    }
    if (settings.log == log_target::nowhere) {
        return true;
    }
    if (peek() == nullptr) {
        differs("a line: " + said);
    }
    int64_t when = peek()->clock;
    std::string line = date_text(when) + "," + time_text(when) +
                       ", tolva[04711]: " + said + "\n";
    line = line.substr(0, 1023);
    if (settings.log == log_target::file) {
        return append_to_log(line);
    }
    if (take(act::printed, "a line: " + line).text != line) {
        position--;
        differs("the line: " + line);
    }
    return true;
}

bool model::append_to_log(const std::string &line) {
    int64_t limit = static_cast<int64_t>(settings.log_kib) * 1024;
    if (limit > 0 && log_exists) {
        auto size = static_cast<int64_t>(log.size());
        int64_t excess = size - (limit - static_cast<int64_t>(line.size()));
        if (excess >= 0 && !cut_log(limit / 10 + excess)) {
            return false;
        }
    }
    if (!opens(FILE_LOG)) {
        return false;
    }
    if (!next_is(act::line) || peek()->text != line) {
        differs("in the log: " + line);
    }
    const fact &written = take(act::line, "a line");
    if (written.limit != static_cast<int64_t>(log.size())) {
        position--;
        differs("a log of " + std::to_string(log.size()) + " bytes before");
    }
    log_exists = true;
    if (written.result != static_cast<int64_t>(line.size())) {
        return false;
    }
    log += line;
    return true;
}

/* Whole lines from the offset on stay, if there is room to turn around in. */
bool model::cut_log(int64_t offset) {
    int held = 0;
    do {
        take(act::copy_begins, "the log is cut");
        bool hindered = false;
        for (const fact *one = peek();
             one != nullptr &&
             (one->what == act::copy_failed ||
              (one->what == act::no_memory && one->who == FILE_COPY) ||
              (one->what == act::open_failed && one->who != FILE_TEXTS));
             one = peek()) {
            hindered = true;
            held = take(one->what, "").held;
        }
        if (!next_is(act::rewritten) && !hindered) {
            differs("the log is cut");
        }
        /* There was a reserve: it is given up, and there is another try. */
    } while (!next_is(act::rewritten) && held > 0);
    if (!next_is(act::rewritten)) {
        return false;
    }
    size_t start = std::min(static_cast<size_t>(offset), log.size());
    size_t most = std::min(start + 8192, log.size());
    size_t line_end = log.find('\n', start);
    start = line_end < most ? line_end + 1 : most;
    std::string kept = log.substr(start);
    const fact &cut = take(act::rewritten, "the log is cut");
    bool torn = cut.error != 0;
    if (torn ? kept.rfind(cut.text, 0) != 0 : cut.text != kept) {
        position--;
        differs("the log keeps " + std::to_string(kept.size()) + " bytes");
    }
    log = cut.text;
    size_t copied = (kept.size() + 8191) / 8192;
    return !torn && copied % 2 == 1;
}

} // namespace simulate
