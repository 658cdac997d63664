// Looking things up in tables.
#pragma once

#include <algorithm>
#include <cstddef>
#include <ranges>

namespace talvik {

// The first row whose `field` is `value`; null when there is none.
template <class Table, class Row, class Field, class Value>
constexpr const Row* findRow(const Table& table, Field Row::*field, const Value& value) {
    const auto row = std::ranges::find(table, value, field);
    return row != std::ranges::end(table) ? &*row : nullptr;
}

}  // namespace talvik
