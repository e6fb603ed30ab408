#include "CoreKestly/Platform/Values/DCIUTF16Internal.h"

namespace {

bool isContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// The length of the well-formed UTF-8 sequence at the start of `text`, or 0 when there is none:
// overlong forms, surrogates, code points beyond U+10FFFF and cut-off sequences are not
// well-formed.
size_t wellFormedSequenceLength(std::string_view text) {
    if (text.empty()) return 0;
    const auto at = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = at(0);
    if (lead < 0x80) return 1;
    size_t length;
    unsigned char secondLow = 0x80, secondHigh = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) secondLow = 0xA0;   // overlong below U+0800
        if (lead == 0xED) secondHigh = 0x9F;  // UTF-16 surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) secondLow = 0x90;   // overlong below U+10000
        if (lead == 0xF4) secondHigh = 0x8F;  // beyond U+10FFFF
    } else {
        return 0;
    }
    if (text.size() < length || at(1) < secondLow || at(1) > secondHigh) return 0;
    for (size_t i = 2; i < length; ++i) {
        if (!isContinuation(at(i))) return 0;
    }
    return length;
}

}  // namespace

size_t DCIUTF16Length(std::string_view text) {
    size_t units = 0;
    while (!text.empty()) {
        const size_t sequence = wellFormedSequenceLength(text);
        units += sequence == 4 ? 2 : 1;
        text.remove_prefix(sequence == 0 ? 1 : sequence);
    }
    return units;
}

size_t DCIUTF8CharacterLength(std::string_view text) {
    if (text.empty()) return 0;
    const size_t sequence = wellFormedSequenceLength(text);
    return sequence == 0 ? 1 : sequence;
}
