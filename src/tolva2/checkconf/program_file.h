/*
 * The program that a setting has the shell run: is it there, may it be run, is
 * there something to run it, and who can change it?
 */
#ifndef TOLVA2_CHECKCONF_PROGRAM_FILE_H
#define TOLVA2_CHECKCONF_PROGRAM_FILE_H

#include "tolva2/checkconf/checkup.h"

/* Checks the first word of a command for the shell, which a setting of that
 * name holds. */
void check_command(const checkup &all, const char *key, const char *command);

/* Checks a program by its path; what names it in findings in that line. */
void check_program(const checkup &all, int32_t line, const char *what,
                   const char *path);

/* What the shell takes a command for. */
enum class command_kind {
    plain,  /* a program by its name */
    opaque, /* something that only the shell can tell */
    open,   /* a quote that is never closed: nothing is run */
};

struct command_word {
    command_kind kind;
    std::string_view word; /* of a plain one, without its quotes */
};

[[nodiscard]] command_word first_of_command(const char *command);

#endif
