#include "core/control/TitleMatching.h"

#include "platform/UTF8.h"

#include <cctype>
#include <clocale>
#include <cwctype>
#include <locale.h>

namespace quorva {

namespace {

std::u32string Folded(std::string_view text) {
    static const locale_t utf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t(0));
    std::u32string folded;
    folded.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        auto point = CodePointAt(text, i);
        if (!point) {
            // A stray byte stands for itself, so that broken text still matches itself.
            folded.push_back(char32_t(0xDC00 + static_cast<unsigned char>(text[i])));
            ++i;
            continue;
        }
        char32_t code = point->value;
        if (utf8)
            code = char32_t(::towlower_l(wint_t(code), utf8));
        else if (code < 0x80)
            code = char32_t(std::tolower(int(code)));
        folded.push_back(code);
        i += point->length;
    }
    return folded;
}

} // namespace

std::optional<std::string> MatchingTitle(std::string_view text, const std::vector<std::string>& candidates) {
    for (const std::string& candidate : candidates) {
        if (candidate == text)
            return candidate;
    }
    const std::u32string part = Folded(text);
    for (const std::string& candidate : candidates) {
        if (Folded(candidate).find(part) != std::u32string::npos)
            return candidate;
    }
    return std::nullopt;
}

bool EqualIgnoringCase(std::string_view one, std::string_view other) {
    return Folded(one) == Folded(other);
}

} // namespace quorva
