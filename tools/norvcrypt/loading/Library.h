#pragma once

/// \file
/// Libraries that the tool does without until it needs them: starting with GMime, GLib and the tables of Unicode takes longer
/// than signing a short body. The functions that the tool's libraries call are defined beside this and lead to the real ones.

#include "base/Failure.h"

#include <dlfcn.h>

#include <string>

namespace norvcrypt {

/// A library that is loaded by its first use and stays.
class Library {
public:
    explicit constexpr Library(const char* name) noexcept : m_name(name) {}

    /// The function of that name, with the type of its stand-in. \throws Failure: neither it nor the library is there
    template <class Function> [[nodiscard]] Function* find(Function* /*type*/, const char* function) const {
        void* const library = dlopen(m_name, RTLD_NOW | RTLD_LOCAL);
        void* const found = library == nullptr ? nullptr : dlsym(library, function);
        if (found == nullptr)
            // cppcheck-suppress resourceLeak ; it stays
            throw Failure(std::string(m_name) + " is not installed, or another version of it");
        // cppcheck-suppress resourceLeak ; likewise
        return reinterpret_cast<Function*>(found);
    }

private:
    const char* m_name;
};

} // namespace norvcrypt

/// Defines a function of C that leads to the one of that name in `library`.
#define NORV_LOADED(library, result, function, parameters, arguments)                                                  \
    result function parameters {                                                                                       \
        static const auto loaded = (library).find(&(function), #function);                                             \
        return loaded arguments;                                                                                       \
    }
