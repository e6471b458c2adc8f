/*
 * Paths are put together in a buffer that refuses what it has no room for.
 * Nothing here asks whether a path with a "/" in it is there: the shell has
 * just started it.
 */
#include "tolva2/start/program_dir.h"
#include "tolva2/base/trace.h"

#include <cstdlib>
#include <cstring>
#include <string_view>
#include <unistd.h>

namespace {

constexpr size_t CWD_MAX = 896;
constexpr size_t PATH_MAX_LENGTH = 1018;
constexpr size_t CANDIDATE_LIMIT = 1020;
constexpr size_t PATH_BUFFER = 1024;

/* A path with its end; empty for none. */
struct path_text {
    char text[PATH_BUFFER] = "";
    size_t length = 0;

    /* Without room for all of part nothing is added. */
    void add(std::string_view part) {
        if (part.size() < sizeof text - length) {
            memcpy(text + length, part.data(), part.size());
            cut(text + length + part.size());
        }
    }
    void cut(const char *end) {
        length = static_cast<size_t>(end - text);
        text[length] = '\0';
    }
};

/* Takes the first segment off *rest, which then stands behind the separator,
 * or is null when that was the last one. */
std::string_view take_segment(const char **rest, char separator) {
    const char *text = *rest;
    const char *end = strchr(text, separator);
    *rest = end ? end + 1 : nullptr;
    return end ? std::string_view(text, static_cast<size_t>(end - text)) : text;
}

/* An absolute path with runs of "/" made one, without "." segments, and
 * without ".." segments and the one before each. The last segment stays as it
 * is. */
path_text normalise(const char *path) {
    path_text normal;
    while (path) {
        std::string_view segment = take_segment(&path, '/');
        bool is_last = !path;
        if (is_last ||
            (!segment.empty() && segment != "." && segment != "..")) {
            normal.add("/");
            normal.add(segment);
        } else if (segment == "..") {
            const char *slash = strrchr(normal.text, '/');
            normal.cut(slash ? slash : normal.text);
        }
    }
    return normal;
}

/* argv0 has a "/": it is relative to the working directory, or absolute. */
path_text path_from_name(std::string_view argv0) {
    path_text path;
    if (!argv0.starts_with('/')) {
        if (!getcwd(path.text, CWD_MAX)) {
            return {};
        }
        path.length = strlen(path.text);
        path.add("/");
    }
    if (path.length + argv0.size() > PATH_MAX_LENGTH) {
        return {};
    }
    path.add(argv0);
    return normalise(path.text);
}

/* argv0 is a bare name: the shell found it in PATH, so look there. */
path_text path_from_search(std::string_view name) {
    const char *search = getenv("PATH");
    while (search) {
        std::string_view directory = take_segment(&search, ':');
        if (directory.size() + name.size() + 1 >= CANDIDATE_LIMIT) {
            continue;
        }
        path_text path;
        path.add(directory);
        /* An empty entry is the root here, never the directory we happen to
         * stand in. */
        if (!directory.ends_with('/')) {
            path.add("/");
        }
        path.add(name);
        if (access(path.text, X_OK) == 0) {
            return path;
        }
    }
    return {};
}

} // namespace

const char *base_name(const char *path) {
    const char *slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

ux_text find_program_dir(const char *argv0) {
    trace_in();
    if (!argv0) {
        return nullptr;
    }
    path_text path =
        strchr(argv0, '/') ? path_from_name(argv0) : path_from_search(argv0);
    const char *slash = strrchr(path.text, '/');
    if (!slash) {
        return nullptr;
    }
    path.cut(slash == path.text ? slash + 1 : slash);
    return ux_copy(path.text);
}
