#include "ShellWords.h"

#include "TerminalText.h"

#include "CoreKestly/Platform/Values/DCIUTF16Internal.h"

#include <cstdio>
#include <utility>

namespace {

// A bare path must not hold what separates the parts of a line: " -> " between two paths (or
// " ->" just before it) and ": " before an error.
bool needsQuoting(std::string_view path) {
    if (path.find(" ->") != std::string_view::npos || path.find(": ") != std::string_view::npos ||
        path.find_first_of("'\"$\\") != std::string_view::npos) {
        return true;
    }
    for (size_t length; !path.empty(); path.remove_prefix(length)) {
        length = DCIUTF8CharacterLength(path);
        if (needsTerminalEscape(path.substr(0, length))) return true;
    }
    return false;
}

// One byte inside $'...'.
std::string escapedByte(char byte) {
    if (byte == '\n') return "\\n";
    if (byte == '\t') return "\\t";
    char escape[8];
    std::snprintf(escape, sizeof escape, "\\x%02X", static_cast<unsigned char>(byte));
    return escape;
}

// The value of `digit` in base 16 or 8, or -1 when it is none.
int digitValue(char digit, bool hexadecimal) {
    if (digit >= '0' && digit <= (hexadecimal ? '9' : '7')) return digit - '0';
    if (!hexadecimal) return -1;
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    return -1;
}

// Reads the text of $'...' from `at`, just after its opening quote, to its closing quote.
bool readANSICQuoted(std::string_view line, size_t& at, std::string& word) {
    // Each escape letter followed by what it stands for.
    static constexpr std::string_view kNamedEscapes = "a\ab\be\033E\033f\fn\nr\rt\tv\v\\\\''\"\"??";
    while (at < line.size()) {
        const char character = line[at++];
        if (character == '\'') return true;
        if (character != '\\') {
            word += character;
            continue;
        }
        if (at == line.size()) return false;
        const char escape = line[at++];
        const size_t named = kNamedEscapes.find(escape);
        if (named != std::string_view::npos && named % 2 == 0) {
            word += kNamedEscapes[named + 1];
            continue;
        }
        const bool hexadecimal = escape == 'x';
        if (!hexadecimal && digitValue(escape, false) < 0) {  // kept as it is, as shells do
            word += '\\';
            word += escape;
            continue;
        }
        if (!hexadecimal) --at;
        int value = 0;
        size_t digits = 0;
        for (int digit; digits < (hexadecimal ? 2u : 3u) && at < line.size() && (digit = digitValue(line[at], hexadecimal)) >= 0;
             ++digits, ++at) {
            value = value * (hexadecimal ? 16 : 8) + digit;
        }
        if (digits == 0) return false;
        word += static_cast<char>(value & 0xFF);
    }
    return false;
}

}  // namespace

std::string shellEscapedPath(std::string_view path) {
    if (!needsQuoting(path)) return std::string(path);
    enum class Quote { none, plain, escapes };
    Quote open = Quote::none;
    std::string quoted;
    const auto enter = [&](Quote quote) {
        if (quote == open) return;
        if (open != Quote::none) quoted += '\'';
        if (quote != Quote::none) quoted += quote == Quote::plain ? "'" : "$'";
        open = quote;
    };
    for (size_t length; !path.empty(); path.remove_prefix(length)) {
        length = DCIUTF8CharacterLength(path);
        const std::string_view character = path.substr(0, length);
        if (character == "'") {
            enter(Quote::none);
            quoted += "\\'";
        } else if (needsTerminalEscape(character)) {
            enter(Quote::escapes);
            for (const char byte : character) quoted += escapedByte(byte);
        } else {
            enter(Quote::plain);
            quoted += character;
        }
    }
    enter(Quote::none);
    return quoted;
}

std::optional<std::vector<std::string>> shellWords(std::string_view line) {
    std::vector<std::string> words;
    std::optional<std::string> word;  // none between words
    for (size_t at = 0; at < line.size();) {
        const char character = line[at++];
        // Any white space separates words, the "\r" that ends a line written on another system too.
        if (std::string_view(" \t\r\v\f").find(character) != std::string_view::npos) {
            if (word) words.push_back(*std::exchange(word, std::nullopt));
            continue;
        }
        std::string& text = word ? *word : word.emplace();
        if (character == '\\') {
            if (at == line.size()) return std::nullopt;
            text += line[at++];
        } else if (character == '\'') {
            const size_t end = line.find('\'', at);
            if (end == std::string_view::npos) return std::nullopt;
            text += line.substr(at, end - at);
            at = end + 1;
        } else if (character == '"') {
            for (;;) {
                if (at == line.size()) return std::nullopt;
                char inner = line[at++];
                if (inner == '"') break;
                if (inner == '\\' && at < line.size() && std::string_view("\"\\$`").find(line[at]) != std::string_view::npos) {
                    inner = line[at++];
                }
                text += inner;
            }
        } else if (character == '$' && at < line.size() && line[at] == '\'') {
            if (!readANSICQuoted(line, ++at, text)) return std::nullopt;
        } else {
            text += character;
        }
    }
    if (word) words.push_back(*word);
    return words;
}
