#pragma once

// What was thrown, looked at in every detail; and OpenSSL's error queue.

#include <norvcmsg/Exception.h>

#include <openssl/err.h>

#include <gtest/gtest.h>

#include <string>
#include <typeinfo>
#include <variant>

namespace norvtest {

/// The exception of exactly the class `E` that `call()` throws; a failed test, and an exception without any content,
/// when it throws nothing or another class.
template <class E = Norvane::Exception, class Call> E thrownBy(Call&& call) {
    try {
        call();
    } catch (const E& thrown) {
        EXPECT_EQ(typeid(thrown), typeid(E));
        return thrown;
    }
    ADD_FAILURE() << "nothing was thrown";
    return E("nothing was thrown", 0, nullptr, 0);
}

/// The only parameter, a text. "<no parameter>" when there is none.
inline std::string detailOf(const Norvane::Exception& thrown) {
    if (thrown.parameters().empty()) {
        return "<no parameter>";
    }
    EXPECT_EQ(thrown.parameters().size(), 1U);
    const auto* text = std::get_if<std::string>(&thrown.parameters().front());
    return text == nullptr ? "<a number>" : *text;
}

/// Checks where-text, code and source module.
inline void expectFailure(const Norvane::Exception& thrown, const std::string& where, int code,
                          const std::string& file) {
    EXPECT_EQ(thrown.where(), where);
    EXPECT_EQ(thrown.code(), code);
    EXPECT_EQ(thrown.fileName(), file);
}

/// The same, with the line.
inline void expectFailure(const Norvane::Exception& thrown, const std::string& where, int code, const std::string& file,
                          unsigned int line) {
    expectFailure(thrown, where, code, file);
    EXPECT_EQ(thrown.lineNumber(), line);
}

/// Queues an error as a function of OpenSSL does that fails, and answers 0, as most of them do.
inline int failIn(const char* function, int library, int reason, const char* file = "file.c") {
    ERR_new();
    ERR_set_debug(file, 1, function);
    ERR_set_error(library, reason, nullptr);
    return 0;
}

/// True when the calling thread's error queue is empty. Empties it otherwise, so that one leak fails one test.
inline bool errorQueueIsEmpty() {
    const bool empty = ERR_peek_error() == 0;
    ERR_clear_error();
    return empty;
}

} // namespace norvtest
