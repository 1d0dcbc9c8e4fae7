// The '|' tokenizer and the two word tests.
#include <cstdint>

#include "FuzzSupport.h"
#include "LumoraParameter.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text = FuzzText(data, size);
    const std::string original = text;

    std::vector<std::string> tokens{"stale"};
    const int n = LumoraParameter::Tokenize(text, tokens);
    FUZZ_CHECK(text == original);
    FUZZ_CHECK(n >= 0 && static_cast<size_t>(n) == tokens.size());

    // Tokens are the non-empty runs between pipes: together they are the text without its pipes.
    std::string joined, withoutPipes;
    for (const auto &t : tokens) {
        FUZZ_CHECK(!t.empty());
        FUZZ_CHECK(t.find('|') == std::string::npos);
        joined += t;
    }
    for (char c : text)
        if (c != '|')
            withoutPipes += c;
    FUZZ_CHECK(joined == withoutPipes);

    // Joining with single pipes and splitting again gives the same tokens.
    std::string rejoined;
    for (const auto &t : tokens)
        rejoined += (rejoined.empty() ? "" : "|") + t;
    std::vector<std::string> again;
    FUZZ_CHECK(LumoraParameter::Tokenize(rejoined, again) == n && again == tokens);

    FUZZ_CHECK(LumoraParameter::IsTRUE(text) == (text == "true"));
    FUZZ_CHECK(LumoraParameter::IsFALSE(text) == (text == "false"));
    FUZZ_CHECK(!(LumoraParameter::IsTRUE(text) && LumoraParameter::IsFALSE(text)));
    return 0;
}
