// Handles: a handle is the address of a record.
#pragma once

#include <memory>

namespace talvik {

// The caller owns the record through its handle from now on.
template <class Record, class Handle>
void handOver(std::unique_ptr<Record> record, Handle* handle) noexcept {
    *handle = reinterpret_cast<Handle>(record.release());
}

}  // namespace talvik
