#include "tolva2/start/program_dir.h"
#include "tolva2/base/trace.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace
{

constexpr size_t CWD_MAX = 896;
constexpr size_t PATH_MAX_LENGTH = 1018;
constexpr size_t CANDIDATE_LIMIT = 1020;
constexpr size_t PATH_BUFFER = 1024;

/*
 * Copies the absolute path into out, which is as long: runs of "/" become
 * one, "." segments go, ".." segments take the one before them along.
 */
void normalise(const char *path, char *out)
{
    size_t length = 0;
    while (*path) {
        path += strspn(path, "/");
        size_t segment = strcspn(path, "/");
        bool last = path[segment] == '\0';
        if (segment == 1 && path[0] == '.' && !last) {
            /* "./" stands for nothing */
        } else if (segment == 2 && !strncmp(path, "..", 2) && !last) {
            while (length > 0 && out[--length] != '/') {
            }
        } else {
            out[length++] = '/';
            memcpy(out + length, path, segment);
            length += segment;
        }
        path += segment;
    }
    out[length] = '\0';
}

/* argv0 has a "/": it is relative to the working directory, or absolute. */
bool path_from_name(const char *argv0, char *out)
{
    char path[PATH_BUFFER] = "";
    size_t length = 0;
    if (argv0[0] != '/') {
        if (!getcwd(path, CWD_MAX)) {
            return false;
        }
        length = strlen(path);
        path[length++] = '/';
    }
    size_t rest = strlen(argv0);
    if (length + rest > PATH_MAX_LENGTH) {
        return false;
    }
    memcpy(path + length, argv0, rest + 1);
    normalise(path, out);
    return true;
}

/* argv0 is a bare name: the shell found it in PATH, so look there. */
bool path_from_search(const char *name, char *out)
{
    const char *entry = getenv("PATH");
    size_t name_length = strlen(name);
    while (entry) {
        size_t length = strcspn(entry, ":");
        if (length + name_length + 1 < CANDIDATE_LIMIT) {
            memcpy(out, entry, length);
            /* An empty entry is the root here, never the directory we happen
             * to stand in. */
            if (length == 0 || out[length - 1] != '/') {
                out[length++] = '/';
            }
            memcpy(out + length, name, name_length + 1);
            if (access(out, X_OK) == 0) {
                return true;
            }
        }
        entry = strchr(entry, ':');
        if (entry) {
            entry++;
        }
    }
    return false;
}

} // namespace

const char *base_name(const char *path)
{
    const char *slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

ux_text find_program_dir(const char *argv0)
{
    trace_in();
    if (!argv0) {
        return nullptr;
    }
    char path[PATH_BUFFER];
    bool found = strchr(argv0, '/') ? path_from_name(argv0, path)
                                    : path_from_search(argv0, path);
    if (!found) {
        return nullptr;
    }
    char *slash = strrchr(path, '/');
    if (!slash) {
        return nullptr;
    }
    slash[slash == path ? 1 : 0] = '\0';
    return ux_copy(path);
}
