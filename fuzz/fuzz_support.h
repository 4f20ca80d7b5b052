// Set-up shared by the fuzz targets: a private root for the library's fixed
// paths, quiet traces, and a reader that takes typed values off the front of
// a fuzz input.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace rtvox::fuzz {

// Points RTVOX_ROOT at a fresh directory under /tmp (removed at exit) with
// the diagnostic-log copies switched off, and silences the trace (unless
// VORN_TRACE_LEVEL is set). Answers the root directory.
const std::string &private_root();

// Writes `size` bytes to `path` under the private root (creating directories).
void write_file(const std::string &path, const uint8_t *data, size_t size);

// Takes values off the front of an input; past its end every value reads as
// zero, so any input, however short, drives a whole run.
class Input {
public:
    Input(const uint8_t *data, size_t size) : data_(data), size_(size) {}

    template <typename T>
    T take()
    {
        T value{};
        const size_t n = std::min(sizeof value, size_);
        std::memcpy(&value, data_, n);
        data_ += n;
        size_ -= n;
        return value;
    }

    // Up to `limit` bytes (all that remain by default).
    size_t take_bytes(const uint8_t **bytes, size_t limit = SIZE_MAX)
    {
        const size_t n = std::min(limit, size_);
        *bytes = data_;
        data_ += n;
        size_ -= n;
        return n;
    }

    size_t remaining() const { return size_; }

private:
    const uint8_t *data_;
    size_t size_;
};

}  // namespace rtvox::fuzz
