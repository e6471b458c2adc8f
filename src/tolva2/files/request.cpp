/*
 * A request is a header, a verb, a command word and its parameters. Whatever
 * is wrong with it ends the parsing where it is found, but for an unknown
 * command word, whose parameters are looked at all the same.
 */
#include "tolva2/files/request.h"
#include "tolva2/base/trace.h"
#include "unixtools/ux_owned.h"

#include <strings.h>

namespace {

/* Reads the verb in front of *rest: true for one of the two there are. */
bool take_verb(command_request *request, char **rest) {
    const char *verb = split_word(rest, PARAM_BLANKS);
    if (!verb) {
        return false;
    }
    debug_printf("DEBUG: ptr1 = [%s]\n", verb);
    request->wants_status = strcasecmp(verb, VERB_EXECSTATUS) == 0;
    return request->wants_status || strcasecmp(verb, VERB_EXECUTE) == 0;
}

/* Finds the command of that word and builds its argument string. */
command_fault take_command(command_request *request, const char *word,
                           char *rest) {
    debug_printf("DEBUG: ptr2 = [%s]\n", word);
    request->index = is_V2command(word);
    if (!get_V2command_params(request->params, sizeof request->params,
                              request->index, rest)) {
        request->params[0] = '\0';
    }
    return request->index == COMMAND_UNKNOWN ? command_fault::unknown
                                             : command_fault::none;
}

command_fault take_apart(command_request *request, char *text) {
    if (ux_is_empty(text)) {
        return command_fault::unknown;
    }
    if (!take_verb(request, &text)) {
        return command_fault::not_understood;
    }
    const char *word = split_word(&text, PARAM_BLANKS);
    return word ? take_command(request, word, text)
                : command_fault::not_understood;
}

} // namespace

request_class classify_request(const char *text) {
    trace_in();
    if (!text ||
        strncasecmp(text, REQUEST_HEADER, REQUEST_HEADER_LENGTH) != 0) {
        return REQUEST_NONE;
    }
    return text[REQUEST_HEADER_LENGTH] == '\0' ? REQUEST_V1 : REQUEST_V2;
}

command_request parse_command(char *text) {
    debug_printf("DEBUG: tolvamsg = [%s]\n", text ? text : "NULL");
    command_request request;
    request.fault = take_apart(&request, text);
    return request;
}
