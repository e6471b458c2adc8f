/*
 * The texts behind "-?" and "-v", printed to standard output. The option
 * parser calls them and ends the process with status 0.
 */
#ifndef TOLVA2_START_HELP_H
#define TOLVA2_START_HELP_H

void help();
void version();

#endif
