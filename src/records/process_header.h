#pragma once

#include <array>
#include <bit>
#include <cstdint>

/// The first 64 bytes of a process file, in memory as on disk. It is binary: its zero bytes are
/// ordinary bytes of the file's first line.
struct ProcessHeader {
    uint32_t magic = 0;    ///< Always written as 0; logged, not checked.
    uint32_t version = 0;  ///< Always written as 0; logged, not checked.
    uint32_t number = 0;   ///< Entries already dealt with, counted from the first one.
    std::array<uint8_t, 52> reserved{};
};

static_assert(sizeof(ProcessHeader) == 64);
static_assert(std::endian::native == std::endian::little, "the file's numbers are little-endian");
