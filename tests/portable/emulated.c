/*
 * Stands where the tests look for the executable, when that is one for another
 * machine: starts the emulator on it, which keeps the name that this was
 * started by. To be linked statically, so that a library which a test puts
 * under the executable is not put under this. Without -DEMULATED the kernel
 * runs such programs itself, and they only want their own loader.
 *
 * Built with -DRUNNER, a link to the emulator or the loader that is called like
 * the program, as the process will be; -DLOADER and -DLIBRARIES (the C library's
 * own for that machine: the emulator would look there for every other file too,
 * if it were to find them by itself); and -DPROGRAM, each of them a text.
 */
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

int main(int argc, char *argv[]) {
    const char *fixed[] = {RUNNER,
#ifdef EMULATED
                           LOADER,
#endif
                           "--argv0",        argc > 0 ? argv[0] : "",
                           "--library-path", LIBRARIES,
                           PROGRAM};
    size_t before = sizeof fixed / sizeof *fixed;
    char **all = calloc(before + (size_t)argc + 1, sizeof *all);
    if (!all) {
        perror("calloc");
        return 126;
    }
    for (size_t i = 0; i < before; i++) {
        all[i] = (char *)fixed[i];
    }
    for (int i = 1; i < argc; i++) {
        all[before + (size_t)i - 1] = argv[i];
    }
    execv(all[0], all);
    perror(all[0]);
    return 126;
}
