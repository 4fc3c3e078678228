#pragma once

#include <cstddef>
#include <cstdlib>

namespace files {

/// What getline() grows, freed at the end.
struct LineBuffer {
    char* text = nullptr;
    size_t capacity = 0;  ///< bytes

    LineBuffer() = default;
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;
    ~LineBuffer() { std::free(text); }
};

}  // namespace files
