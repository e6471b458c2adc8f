/*
 * A small generator of chance. Each event of a day has its own, so that the
 * others stay as they are when one is left out.
 */
#ifndef TESTS_SIMULATE_CHANCE_H
#define TESTS_SIMULATE_CHANCE_H

#include <cstddef>
#include <cstdint>

namespace simulate {

class chance {
  public:
    explicit chance(uint64_t seed, uint64_t stream = 0)
        : state(seed * 0x9e3779b97f4a7c15U + stream * 0xbf58476d1ce4e5b9U) {
        next();
    }
    uint64_t next() {
        uint64_t z = (state += 0x9e3779b97f4a7c15U);
        z = (z ^ (z >> 30U)) * 0xbf58476d1ce4e5b9U;
        z = (z ^ (z >> 27U)) * 0x94d049bb133111ebU;
        return z ^ (z >> 31U);
    }
    /* From first to last, both included. */
    int64_t between(int64_t first, int64_t last) {
        auto range = static_cast<uint64_t>(last - first) + 1;
        return first + static_cast<int64_t>(next() % range);
    }
    bool one_in(int64_t n) { return between(1, n) == 1; }
    template <typename T, size_t n> T pick(const T (&from)[n]) {
        return from[static_cast<size_t>(next() % n)];
    }

  private:
    uint64_t state;
};

} // namespace simulate

#endif
