#include "CoreKestly/Platform/Values/DCIFormat.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstdio>
#include <limits>

namespace {

using Value = DCIFormatArgument::Value;

// Wider fields are mistakes, and an unbounded one would let a format exhaust memory.
constexpr int kMaxFieldWidth = 4096;

enum class Kind { signedInteger, unsignedInteger, character, floating, text, pointer, unknown };

Kind kindOf(char conversion) {
    switch (conversion) {
        case 'd': case 'i': return Kind::signedInteger;
        case 'u': case 'o': case 'x': case 'X': return Kind::unsignedInteger;
        case 'c': return Kind::character;
        case 'f': case 'F': case 'e': case 'E': case 'g': case 'G': case 'a': case 'A': return Kind::floating;
        case 's': case '@': return Kind::text;
        case 'p': return Kind::pointer;
        default: return Kind::unknown;
    }
}

// The flags C defines for each conversion. The others are dropped, not handed to snprintf, where they
// would be undefined behaviour.
std::string_view flagsAllowed(char conversion) {
    switch (kindOf(conversion)) {
        case Kind::signedInteger: return "-+ 0";
        case Kind::unsignedInteger: return conversion == 'u' ? "-0" : "-0#";
        case Kind::floating: return "-+ 0#";
        default: return "-";
    }
}

struct Directive {
    bool leftAlign = false;
    bool plusSign = false;
    bool spaceSign = false;
    bool alternateForm = false;
    bool zeroPad = false;
    int width = 0;
    std::optional<int> precision;
    bool widthFromArgument = false;
    bool precisionFromArgument = false;
    char conversion = 0;
    // Characters from after the '%' up to and including the conversion character.
    size_t length = 0;

    Kind kind() const { return kindOf(conversion); }
};

bool isDigit(char c) { return c >= '0' && c <= '9'; }

int readNumber(std::string_view text, size_t& position) {
    int number = 0;
    for (; position < text.size() && isDigit(text[position]); ++position)
        number = std::min(number * 10 + (text[position] - '0'), kMaxFieldWidth);
    return number;
}

// Reads the conversion directive that follows a '%'; nothing when the text ends before its conversion character.
std::optional<Directive> parseDirective(std::string_view text) {
    Directive directive;
    size_t position = 0;
    for (; position < text.size() && std::string_view("-+ #0").find(text[position]) != std::string_view::npos;
         ++position) {
        const char flag = text[position];
        directive.leftAlign |= flag == '-';
        directive.plusSign |= flag == '+';
        directive.spaceSign |= flag == ' ';
        directive.alternateForm |= flag == '#';
        directive.zeroPad |= flag == '0';
    }
    if (position < text.size() && text[position] == '*') {
        directive.widthFromArgument = true;
        ++position;
    } else {
        directive.width = readNumber(text, position);
    }
    if (position < text.size() && text[position] == '.') {
        ++position;
        if (position < text.size() && text[position] == '*') {
            directive.precisionFromArgument = true;
            ++position;
        } else {
            directive.precision = readNumber(text, position);
        }
    }
    // Length modifiers say how wide a C argument is; ours carry their own type.
    while (position < text.size() && std::string_view("hlqztjL").find(text[position]) != std::string_view::npos)
        ++position;
    if (position == text.size()) return std::nullopt;
    directive.conversion = text[position];
    directive.length = position + 1;
    return directive;
}

// A width or precision given by an argument: an integer, or a double truncated; anything else gives none.
std::optional<int> fieldFromArgument(const Value& value) {
    return std::visit(
        [](const auto& argument) -> std::optional<int> {
            using T = std::decay_t<decltype(argument)>;
            if constexpr (std::is_same_v<T, int64_t>) {
                return static_cast<int>(std::clamp<int64_t>(argument, -kMaxFieldWidth, kMaxFieldWidth));
            } else if constexpr (std::is_same_v<T, uint64_t>) {
                return static_cast<int>(std::min<uint64_t>(argument, kMaxFieldWidth));
            } else if constexpr (std::is_same_v<T, double>) {
                if (std::isnan(argument)) return std::nullopt;
                return static_cast<int>(std::clamp<double>(argument, -kMaxFieldWidth, kMaxFieldWidth));
            } else {
                return std::nullopt;
            }
        },
        value);
}

class ArgumentCursor {
public:
    explicit ArgumentCursor(std::span<const DCIFormatArgument> arguments) : arguments_(arguments) {}

    // The next argument, or nil once they have run out.
    const Value& next() {
        static const Value nil;
        return index_ < arguments_.size() ? arguments_[index_++].value() : nil;
    }

private:
    std::span<const DCIFormatArgument> arguments_;
    size_t index_ = 0;
};

// Takes the width and precision the conversion directive asks of the arguments, as C does: a negative width
// left-aligns, a negative precision counts as none.
void takeFieldArguments(Directive& directive, ArgumentCursor& arguments) {
    if (directive.widthFromArgument) {
        if (const auto width = fieldFromArgument(arguments.next())) {
            directive.leftAlign |= *width < 0;
            directive.width = std::abs(*width);
        }
    }
    if (directive.precisionFromArgument) {
        const auto precision = fieldFromArgument(arguments.next());
        directive.precision = precision && *precision >= 0 ? precision : std::nullopt;
    }
}

// One conversion done by snprintf with a format rebuilt from the validated conversion directive.
// `format` is one conversion built from a directive whose conversion and length modifier were
// chosen for `Number`, so it matches its argument by construction, which the compiler's
// format check cannot see.
template <class Number>
int printNumber(char* out, size_t size, const std::string& format, Number number) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    return std::snprintf(out, size, format.c_str(), number);
#pragma GCC diagnostic pop
}

template <class Number>
void appendPrintf(std::string& out, const Directive& directive, std::string_view lengthModifier, Number number) {
    const std::string_view allowed = flagsAllowed(directive.conversion);
    std::string format = "%";
    const auto addFlag = [&](bool present, char flag) {
        if (present && allowed.find(flag) != std::string_view::npos) format += flag;
    };
    addFlag(directive.leftAlign, '-');
    addFlag(directive.plusSign, '+');
    addFlag(directive.spaceSign, ' ');
    addFlag(directive.alternateForm, '#');
    addFlag(directive.zeroPad, '0');
    if (directive.width > 0) format += std::to_string(directive.width);
    if (directive.precision && directive.kind() != Kind::character) format += '.' + std::to_string(*directive.precision);
    format += lengthModifier;
    format += directive.conversion;

    char buffer[128];
    const int length = printNumber(buffer, sizeof buffer, format, number);
    if (length < 0) return;
    if (static_cast<size_t>(length) < sizeof buffer) {
        out.append(buffer, static_cast<size_t>(length));
        return;
    }
    const size_t start = out.size();
    out.resize(start + static_cast<size_t>(length) + 1);
    printNumber(out.data() + start, static_cast<size_t>(length) + 1, format, number);
    out.resize(start + static_cast<size_t>(length));
}

// Text as "%s" lays it out. The precision counts bytes but never splits a UTF-8 character.
void appendText(std::string& out, std::string_view text, const Directive& directive) {
    if (directive.precision && static_cast<size_t>(*directive.precision) < text.size()) {
        size_t end = static_cast<size_t>(*directive.precision);
        while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
        text = text.substr(0, end);
    }
    const size_t width = static_cast<size_t>(directive.width);
    const size_t padding = width > text.size() ? width - text.size() : 0;
    if (!directive.leftAlign) out.append(padding, ' ');
    out.append(text);
    if (directive.leftAlign) out.append(padding, ' ');
}

// A value printed as text in place of a conversion that wanted something else: its precision was meant for
// digits, not for cutting the text.
void appendTextInstead(std::string& out, std::string_view text, Directive directive) {
    if (directive.kind() != Kind::text) directive.precision.reset();
    appendText(out, text, directive);
}

std::string shortestText(double number) {
    char text[32];
    const auto result = std::to_chars(text, text + sizeof text, number);
    return std::string(text, result.ptr);
}

std::string pointerText(const void* pointer) {
    char text[2 + 2 * sizeof(uintptr_t)] = {'0', 'x'};
    const auto result = std::to_chars(text + 2, text + sizeof text, reinterpret_cast<uintptr_t>(pointer), 16);
    return std::string(text, result.ptr);
}

void appendInteger(std::string& out, Directive directive, int64_t number) {
    switch (directive.kind()) {
        case Kind::signedInteger:
            return appendPrintf(out, directive, "ll", static_cast<long long>(number));
        case Kind::unsignedInteger:
            if (number >= 0) return appendPrintf(out, directive, "ll", static_cast<unsigned long long>(number));
            // In hexadecimal, octal or unsigned decimal a negative number would show its bits, not its value.
            directive.conversion = 'd';
            return appendPrintf(out, directive, "ll", static_cast<long long>(number));
        case Kind::character:
            // A char from a UTF-8 byte arrives negative; both forms print as that byte.
            if (number >= -128 && number <= 255) return appendPrintf(out, directive, "", static_cast<int>(number));
            directive.conversion = 'd';
            return appendPrintf(out, directive, "ll", static_cast<long long>(number));
        case Kind::floating:
            return appendPrintf(out, directive, "", static_cast<double>(number));
        default:
            return appendTextInstead(out, std::to_string(number), directive);
    }
}

void appendInteger(std::string& out, Directive directive, uint64_t number) {
    if (number <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
        return appendInteger(out, directive, static_cast<int64_t>(number));
    switch (directive.kind()) {
        case Kind::signedInteger:
        case Kind::character:
            // Beyond any signed or character form: decimal without a sign.
            directive.conversion = 'u';
            return appendPrintf(out, directive, "ll", static_cast<unsigned long long>(number));
        case Kind::unsignedInteger:
            return appendPrintf(out, directive, "ll", static_cast<unsigned long long>(number));
        case Kind::floating:
            return appendPrintf(out, directive, "", static_cast<double>(number));
        default:
            return appendTextInstead(out, std::to_string(number), directive);
    }
}

void appendDouble(std::string& out, Directive directive, double number) {
    switch (directive.kind()) {
        case Kind::floating:
            return appendPrintf(out, directive, "", number);
        case Kind::text:
        case Kind::pointer:
            return appendTextInstead(out, shortestText(number), directive);
        default:
            // An integer conversion truncates, as C converts, whenever a 64-bit integer holds the value;
            // NaN, infinities and larger numbers keep their floating-point form.
            if (number >= -0x1p63 && number < 0x1p63) return appendInteger(out, directive, static_cast<int64_t>(number));
            if (number >= 0 && number < 0x1p64) return appendInteger(out, directive, static_cast<uint64_t>(number));
            directive.conversion = 'g';
            return appendPrintf(out, directive, "", number);
    }
}

void appendArgument(std::string& out, const Directive& directive, const Value& value) {
    std::visit(
        [&](const auto& argument) {
            using T = std::decay_t<decltype(argument)>;
            if constexpr (std::is_same_v<T, std::monostate>) {
                Directive whole = directive;
                whole.precision.reset();
                appendText(out, kDCINilDescription, whole);
            } else if constexpr (std::is_same_v<T, int64_t> || std::is_same_v<T, uint64_t>) {
                appendInteger(out, directive, argument);
            } else if constexpr (std::is_same_v<T, double>) {
                appendDouble(out, directive, argument);
            } else if constexpr (std::is_same_v<T, const void*>) {
                appendTextInstead(out, pointerText(argument), directive);
            } else {
                appendTextInstead(out, argument, directive);
            }
        },
        value);
}

// Which kind of number a value holds is not exposed, but equality compares kinds before numbers, so it
// tells. NaN is the one double unequal to itself.
}  // namespace

DCIFormatArgument::DCIFormatArgument(const char* text) {
    if (text) value_ = std::string_view(text);
}

DCIFormatArgument::DCIFormatArgument(const DCIValue& value) {
    if (const std::string* text = value.string()) value_ = std::string_view(*text);
    else if (const auto number = value.number()) std::visit([this](auto stored) { value_ = stored; }, *number);
    else value_ = value.description();
}

std::string DCIFormatArguments(std::string_view format, std::span<const DCIFormatArgument> arguments) {
    std::string message;
    message.reserve(format.size() + 16 * arguments.size());
    ArgumentCursor nextArguments(arguments);
    size_t position = 0;
    while (position < format.size()) {
        const size_t percent = format.find('%', position);
        message.append(format.substr(position, percent - position));
        if (percent == std::string_view::npos) break;

        auto directive = parseDirective(format.substr(percent + 1));
        if (!directive) {
            // The format ends inside a conversion directive: what is there is text.
            message.append(format.substr(percent));
            break;
        }
        if (directive->conversion == '%') {
            message += '%';
        } else if (directive->kind() == Kind::unknown) {
            message.append(format.substr(percent, 1 + directive->length));
        } else {
            takeFieldArguments(*directive, nextArguments);
            appendArgument(message, *directive, nextArguments.next());
        }
        position = percent + 1 + directive->length;
    }
    return message;
}
