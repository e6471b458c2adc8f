/*
 * Owners of what the C library hands out: a descriptor, a stream, a text or a
 * record on the heap. Each gives back what it holds when it goes, and keeps
 * errno, so that the call that failed before can still be asked why.
 */
#ifndef UNIXTOOLS_UX_OWNED_H
#define UNIXTOOLS_UX_OWNED_H

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string_view>
#include <unistd.h>
#include <utility>

/* A descriptor, or none: -1. */
class ux_fd {
  public:
    ux_fd() = default;
    explicit ux_fd(int number) : fd(number) {}
    ux_fd(ux_fd &&other) noexcept : fd(other.release()) {}
    ux_fd &operator=(ux_fd &&other) noexcept {
        reset(other.release());
        return *this;
    }
    ~ux_fd() { reset(); }
    explicit operator bool() const { return fd >= 0; }
    int get() const { return fd; }
    /* The descriptor, which from now on belongs to the caller. */
    [[nodiscard]] int release() { return std::exchange(fd, -1); }
    void reset(int number = -1) {
        if (fd >= 0) {
            int saved = errno;
            close(fd);
            errno = saved;
        }
        fd = number;
    }

  private:
    int fd = -1;
};

struct ux_closer {
    void operator()(FILE *stream) const {
        int saved = errno;
        fclose(stream);
        errno = saved;
    }
};

/* A stream, or none. */
using ux_file = std::unique_ptr<FILE, ux_closer>;

/* Closes a stream that was written to: false when what was still buffered
 * could not be written, a full disk for one. */
[[nodiscard]] inline bool ux_close(ux_file stream) {
    return fclose(stream.release()) == 0;
}

struct ux_freer {
    void operator()(void *block) const { free(block); }
};

/* A text on the heap, or none. */
using ux_text = std::unique_ptr<char, ux_freer>;

/* A copy of text; null for a null text, and when memory is exhausted. */
[[nodiscard]] inline ux_text ux_copy(const char *text) {
    return ux_text(text ? strdup(text) : nullptr);
}

/* The parts one behind the other; null when memory is exhausted. */
[[nodiscard]] inline ux_text
ux_join(std::initializer_list<std::string_view> parts) {
    size_t size = 1;
    for (std::string_view part : parts) {
        size += part.size();
    }
    ux_text text(static_cast<char *>(malloc(size)));
    if (text) {
        char *end = text.get();
        for (std::string_view part : parts) {
            memcpy(end, part.data(), part.size());
            end += part.size();
        }
        *end = '\0';
    }
    return text;
}

/* A text as a view, which is null too when the text is. */
[[nodiscard]] inline std::string_view ux_view(const char *text) {
    return text ? std::string_view(text) : std::string_view();
}

/* True for a text that is null or empty. */
[[nodiscard]] inline bool ux_is_empty(const char *text) {
    return !text || !*text;
}

/* A zeroed record on the heap, to be given to ux_delete; null when memory is
 * exhausted. */
template <typename record> [[nodiscard]] record *ux_new() {
    void *block = calloc(1, sizeof(record));
    return block ? new (block) record{} : nullptr;
}

template <typename record> void ux_delete(record *one) {
    if (one) {
        one->~record();
        free(one);
    }
}

template <typename record> struct ux_deleter {
    void operator()(record *one) const { ux_delete(one); }
};

/* A record that was made by ux_new, or none. */
template <typename record>
using ux_owner = std::unique_ptr<record, ux_deleter<record>>;

#endif
