#pragma once

/// \file
/// Pieces of work in several threads at a time, told in their order.

#include "base/Failure.h"

#include <cstddef>
#include <functional>
#include <string>

namespace norvcrypt {

/// What came of one piece.
struct Report {
    Exit exit = Exit::good;
    std::string text;
};

/// Does the pieces 0 to `count` - 1 in so many threads, or in fewer where the system has no more, and hands what came of each to
/// `tell`, in their order and one at a time. Few results wait for those before them: who is far ahead waits, too. With one
/// thread there is no other than the caller's.
/// \param work called by several threads at once
/// \throws what either of them threw; no further piece is begun then
void doInOrder(std::size_t count, unsigned int threads, const std::function<Report(std::size_t)>& work,
               const std::function<void(const Report&)>& tell);

/// How many threads there is a core for.
unsigned int availableCores();

} // namespace norvcrypt
