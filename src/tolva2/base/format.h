/*
 * A proof for texts with conversions that stand in tables. The compiler checks
 * a format only where it is called with; a table checks its own with this, in
 * a static_assert.
 */
#ifndef TOLVA2_BASE_FORMAT_H
#define TOLVA2_BASE_FORMAT_H

#include <string_view>

/* True when what text converts is a beginning of order: for "scs" nothing, or
 * "%s", or "%s" and "%c", or these and another "%s". No width, no "%%". */
[[nodiscard]] constexpr bool converts_only(std::string_view text,
                                           std::string_view order) {
    for (size_t at = text.find('%'); at != text.npos; at = text.find('%', at)) {
        at++;
        if (order.empty() || at == text.size() || text[at] != order[0]) {
            return false;
        }
        order.remove_prefix(1);
    }
    return true;
}

#endif
