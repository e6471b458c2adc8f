/*
 * A fixed number of records on the heap, each default constructed. Memory's
 * end gives an empty array.
 */
#ifndef TOLVA2_FLEET_FLEET_ARRAY_H
#define TOLVA2_FLEET_FLEET_ARRAY_H

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <utility>

template <typename record> class fleet_array {
  public:
    fleet_array() = default;
    explicit fleet_array(size_t wanted)
        : items(static_cast<record *>(
              calloc(wanted ? wanted : 1, sizeof(record)))),
          count(items ? wanted : 0) {
        std::uninitialized_value_construct_n(items, count);
    }
    fleet_array(fleet_array &&other) noexcept
        : items(std::exchange(other.items, nullptr)),
          count(std::exchange(other.count, 0)) {}
    fleet_array &operator=(fleet_array &&other) noexcept {
        std::swap(items, other.items);
        std::swap(count, other.count);
        return *this;
    }
    ~fleet_array() {
        std::destroy_n(items, count);
        free(items);
    }
    explicit operator bool() const { return items != nullptr; }
    size_t size() const { return count; }
    record &operator[](size_t index) { return items[index]; }
    const record &operator[](size_t index) const { return items[index]; }
    record *begin() { return items; }
    record *end() { return items + count; }
    const record *begin() const { return items; }
    const record *end() const { return items + count; }

  private:
    record *items = nullptr;
    size_t count = 0;
};

#endif
