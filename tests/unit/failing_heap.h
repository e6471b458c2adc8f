/*
 * A heap that runs out on demand. Included after every header and before a
 * module's .cpp, whose allocations then go through here.
 */
#ifndef TESTS_UNIT_FAILING_HEAP_H
#define TESTS_UNIT_FAILING_HEAP_H

#include <cstdlib>
#include <cstring>

/* Allocations that still succeed; negative: all of them. */
inline int heap_left = -1;

inline bool heap_is_empty()
{
    if (heap_left == 0) {
        return true;
    }
    if (heap_left > 0) {
        heap_left--;
    }
    return false;
}

inline void *heap_calloc(size_t count, size_t size)
{
    return heap_is_empty() ? nullptr : std::calloc(count, size);
}

inline char *heap_strdup(const char *text)
{
    return heap_is_empty() ? nullptr : ::strdup(text);
}

/* The heap has this many allocations left for as long as it lives. */
class heap_limit
{
  public:
    explicit heap_limit(int left)
    {
        heap_left = left;
    }
    ~heap_limit()
    {
        heap_left = -1;
    }
    heap_limit(const heap_limit &) = delete;
    heap_limit &operator=(const heap_limit &) = delete;
};

#define calloc heap_calloc
#define strdup heap_strdup

#endif
