/*
 * Paths are read through views and put together in a buffer that refuses what
 * it has no room for. Nothing here asks whether a path with a "/" in it is
 * there: the shell has just started it.
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

    std::string_view view() const { return {text, length}; }
    /* Without room for all of part nothing is added. */
    void add(std::string_view part) {
        if (part.size() < sizeof text - length) {
            memcpy(text + length, part.data(), part.size());
            cut(length + part.size());
        }
    }
    void cut(size_t at) {
        length = at;
        text[length] = '\0';
    }
};

/* A text in two, at the first separator, which is in neither. */
struct halves {
    std::string_view first;
    std::string_view rest;
    bool divided;
};

halves divide(std::string_view text, char separator) {
    size_t at = text.find(separator);
    if (at == text.npos) {
        return {text, {}, false};
    }
    return {
        {text.data(), at}, {text.data() + at + 1, text.size() - at - 1}, true};
}

/* Takes the last segment away, if there is one. */
void go_up(path_text *path) {
    size_t slash = path->view().rfind('/');
    path->cut(slash == std::string_view::npos ? 0 : slash);
}

/*
 * An absolute path with runs of "/" made one, without "." segments, and
 * without ".." segments and the one before each. The last segment stays as it
 * is.
 */
path_text normalise(std::string_view path) {
    path_text normal;
    halves here{{}, path, true};
    while (here.divided) {
        here = divide(here.rest, '/');
        bool is_last = !here.divided;
        if (is_last ||
            (!here.first.empty() && here.first != "." && here.first != "..")) {
            normal.add("/");
            normal.add(here.first);
        } else if (here.first == "..") {
            go_up(&normal);
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
    return normalise(path.view());
}

/* The name in a directory of PATH; too long is none. */
path_text candidate(std::string_view directory, std::string_view name) {
    path_text path;
    if (directory.size() + name.size() + 1 >= CANDIDATE_LIMIT) {
        return path;
    }
    path.add(directory);
    /* An empty entry is the root here, never the directory we happen to stand
     * in. */
    if (!directory.ends_with('/')) {
        path.add("/");
    }
    path.add(name);
    return path;
}

/* argv0 is a bare name: the shell found it in PATH, so look there. */
path_text path_from_search(std::string_view name) {
    const char *search = getenv("PATH");
    halves entry{{}, search ? search : "", search != nullptr};
    while (entry.divided) {
        entry = divide(entry.rest, ':');
        path_text path = candidate(entry.first, name);
        if (path.length > 0 && access(path.text, X_OK) == 0) {
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
    size_t slash = path.view().rfind('/');
    if (slash == std::string_view::npos) {
        return nullptr;
    }
    path.cut(slash == 0 ? 1 : slash);
    return ux_copy(path.text);
}
