#include "LogFields.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>

namespace Norvane {

namespace {

constexpr char fieldSeparator = '\x01';

static_assert(std::is_same_v<std::intmax_t, long>);

enum class Length : int { none, hh, h, l, ll, j, z, t, L };

/// One conversion of a format.
struct Conversion {
    std::string flags;
    std::optional<int> width;
    std::optional<int> precision;
    Length length = Length::none;
    char type = '\0';

    /// As printf takes it, with `modifier` before the type.
    [[nodiscard]] std::string text(std::string_view modifier) const {
        std::string result = '%' + flags;
        if (width) {
            result += std::to_string(*width);
        }
        if (precision) {
            result += '.' + std::to_string(*precision);
        }
        return result.append(modifier) + type;
    }
};

/// Reads a format from left to right and takes the arguments as it meets their conversions.
class Formatter {
public:
    // The arguments are taken from the caller's list.
    Formatter(const char* format, std::va_list& arguments, int error)
        : m_rest(format),
          m_arguments(arguments),
          m_error(error) {}

    std::vector<std::string> fields() {
        while (!m_rest.empty()) {
            const char next = m_rest.front();
            if (next == fieldSeparator) {
                m_fields.emplace_back();
                m_rest.remove_prefix(1);
            } else if (next != '%') {
                m_fields.back() += next;
                m_rest.remove_prefix(1);
            } else if (!convert()) {
                // Which argument comes next is unknown from here on.
                m_fields.back() += m_rest;
                break;
            }
        }
        return std::move(m_fields);
    }

private:
    /// Prints the conversion at the front of the rest and removes it; false when it is none that can be printed.
    bool convert() {
        const auto start = m_rest;
        const auto conversion = parse();
        if (conversion && print(*conversion)) {
            return true;
        }
        m_rest = start;
        return false;
    }

    std::optional<Conversion> parse() {
        Conversion conversion;
        m_rest.remove_prefix(1);
        while (!m_rest.empty() && std::string_view("-+ #0'").find(m_rest.front()) != std::string_view::npos) {
            conversion.flags += take();
        }
        conversion.width = number();
        if (conversion.width && *conversion.width < 0) {
            conversion.flags += '-';
            conversion.width = conversion.width == INT32_MIN ? 0 : -*conversion.width;
        }
        if (!m_rest.empty() && m_rest.front() == '.') {
            take();
            conversion.precision = number().value_or(0);
            if (*conversion.precision < 0) {
                conversion.precision.reset();
            }
        }
        conversion.length = length();
        if (m_rest.empty()) {
            return std::nullopt;
        }
        conversion.type = take();
        return conversion;
    }

    char take() {
        const char character = m_rest.front();
        m_rest.remove_prefix(1);
        return character;
    }

    bool takeIf(std::string_view text) {
        if (!m_rest.starts_with(text)) {
            return false;
        }
        m_rest.remove_prefix(text.size());
        return true;
    }

    /// A width or precision: digits, or an argument of its own.
    std::optional<int> number() {
        if (takeIf("*")) {
            return va_arg(m_arguments, int);
        }
        std::optional<int> result;
        while (!m_rest.empty() && m_rest.front() >= '0' && m_rest.front() <= '9') {
            const int digit = take() - '0';
            result = result.value_or(0) > 100'000'000 ? *result : result.value_or(0) * 10 + digit;
        }
        return result;
    }

    Length length() {
        static constexpr struct {
            std::string_view text;
            Length length;
        } modifiers[] = {{"hh", Length::hh}, {"h", Length::h}, {"ll", Length::ll}, {"l", Length::l},
                         {"j", Length::j},   {"z", Length::z}, {"t", Length::t},   {"L", Length::L}};
        for (const auto& modifier : modifiers) {
            if (takeIf(modifier.text)) {
                return modifier.length;
            }
        }
        return Length::none;
    }

    bool print(const Conversion& conversion) {
        switch (conversion.type) {
        case '%':
            m_fields.back() += '%';
            return true;
        case 'd':
        case 'i':
            format(conversion, "j", signedArgument(conversion.length));
            return true;
        case 'u':
        case 'x':
        case 'X':
        case 'o':
            format(conversion, "j", unsignedArgument(conversion.length));
            return true;
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            printFloating(conversion);
            return true;
        case 'p':
            format(conversion, "", va_arg(m_arguments, void*));
            return true;
        case 'm':
            printText(conversion, std::generic_category().message(m_error).c_str());
            return true;
        case 'c':
        case 's':
            return conversion.length == Length::none && printCharacters(conversion);
        default:
            return false;
        }
    }

    std::intmax_t signedArgument(Length length) {
        switch (length) {
        case Length::hh:
            return static_cast<signed char>(va_arg(m_arguments, int));
        case Length::h:
            return static_cast<short>(va_arg(m_arguments, int));
        case Length::l:
        case Length::j:
            return va_arg(m_arguments, long);
        case Length::ll:
        case Length::L:
            return va_arg(m_arguments, long long);
        case Length::z:
        case Length::t:
            return va_arg(m_arguments, std::ptrdiff_t);
        case Length::none:
            break;
        }
        return va_arg(m_arguments, int);
    }

    std::uintmax_t unsignedArgument(Length length) {
        switch (length) {
        case Length::hh:
            return static_cast<unsigned char>(va_arg(m_arguments, unsigned int));
        case Length::h:
            return static_cast<unsigned short>(va_arg(m_arguments, unsigned int));
        case Length::l:
        case Length::j:
            return va_arg(m_arguments, unsigned long);
        case Length::ll:
        case Length::L:
            return va_arg(m_arguments, unsigned long long);
        case Length::z:
        case Length::t:
            return va_arg(m_arguments, std::size_t);
        case Length::none:
            break;
        }
        return va_arg(m_arguments, unsigned int);
    }

    void printFloating(const Conversion& conversion) {
        if (conversion.length == Length::L) {
            format(conversion, "L", va_arg(m_arguments, long double));
        } else {
            format(conversion, "", va_arg(m_arguments, double));
        }
    }

    bool printCharacters(const Conversion& conversion) {
        if (conversion.type == 'c') {
            const char text[] = {static_cast<char>(va_arg(m_arguments, int))};
            pad(conversion, {text, 1});
        } else {
            printText(conversion, va_arg(m_arguments, const char*));
        }
        return true;
    }

    /// A text, of which no byte past the precision is read.
    void printText(const Conversion& conversion, const char* text) {
        if (text == nullptr) {
            text = "(null)";
        }
        const auto length =
            conversion.precision ? strnlen(text, static_cast<std::size_t>(*conversion.precision)) : std::strlen(text);
        pad(conversion, {text, length});
    }

    void pad(const Conversion& conversion, std::string_view text) {
        const auto width = static_cast<std::size_t>(conversion.width.value_or(0));
        const auto padding = width > text.size() ? width - text.size() : 0;
        const bool left = conversion.flags.find('-') != std::string::npos;
        auto& field = m_fields.back();
        field.append(left ? 0 : padding, ' ').append(text).append(left ? padding : 0, ' ');
    }

    template <class Value> void format(const Conversion& conversion, std::string_view modifier, Value value) {
        const auto text = conversion.text(modifier);
        const auto length = std::snprintf(nullptr, 0, text.c_str(), value);
        if (length <= 0) {
            return;
        }
        auto& field = m_fields.back();
        const auto before = field.size();
        field.resize(before + static_cast<std::size_t>(length) + 1);
        std::snprintf(&field[before], static_cast<std::size_t>(length) + 1, text.c_str(), value);
        field.pop_back();
    }

    std::string_view m_rest;
    std::va_list& m_arguments;
    int m_error;
    std::vector<std::string> m_fields{1};
};

} // namespace

std::vector<std::string> formatLogFields(const char* format, std::va_list arguments, int error) {
    std::va_list copy;
    va_copy(copy, arguments);
    struct End {
        std::va_list& list;
        ~End() { va_end(list); }
    } const end{copy};
    return Formatter(format, copy, error).fields();
}

} // namespace Norvane
