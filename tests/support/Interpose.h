#pragma once

// Functions of OpenSSL or of the common library that a test program defines itself, to provoke failures that cannot be
// provoked from outside. The libraries under test call the program's definition:
//
//     namespace { bool s_failing = false; }
//     extern "C" BIO* BIO_new(const BIO_METHOD* method) {
//         return s_failing ? nullptr : norvtest::next<&BIO_new>("BIO_new")(method);
//     }

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

namespace norvtest {

/// The definition that the program's own one hides.
template <auto Function> auto next(const char* name) {
    static void* const found = dlsym(RTLD_NEXT, name);
    if (found == nullptr) {
        std::fprintf(stderr, "%s is not there to forward to\n", name);
        std::abort();
    }
    return reinterpret_cast<decltype(Function)>(found);
}

/// Sets a variable for the length of a scope.
template <class T> class During {
public:
    During(T& variable, T value) : m_variable(variable), m_before(variable) { m_variable = value; }
    ~During() { m_variable = m_before; }
    During(const During&) = delete;
    During& operator=(const During&) = delete;

private:
    T& m_variable;
    T m_before;
};

} // namespace norvtest
