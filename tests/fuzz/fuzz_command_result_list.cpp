// Sub-command lists ("name|count|value...|name|count|...").
#include <cstdint>

#include "FuzzSupport.h"
#include "LumoraParameter.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text = FuzzText(data, size);

    std::vector<std::string> fields;
    const size_t n = static_cast<size_t>(LumoraParameter::Tokenize(text, fields));

    CCommandResult result;
    const bool bOk = result.m_ParseSubCommandList(text);

    // Walk the fields again alongside the items: every item is a name, a
    // count and at most that many values, taken in text order.
    size_t i = 0;
    for (const auto &item : result.vctItem) {
        FUZZ_CHECK(i + 1 < n);
        FUZZ_CHECK(item.strName == fields[i]);
        i += 2;
        const size_t nLimit = item.nCount > 0 ? static_cast<size_t>(item.nCount) : 0;
        FUZZ_CHECK(item.vctValue.size() <= nLimit);
        for (const auto &value : item.vctValue)
            FUZZ_CHECK(i < n && value == fields[i++]);
    }
    FUZZ_CHECK(i <= n);
    // Success means every field was consumed; failure means some were left.
    FUZZ_CHECK(bOk == (i == n));

    // A second call appends, it never replaces.
    const size_t nItems = result.vctItem.size();
    result.m_ParseSubCommandList(text);
    FUZZ_CHECK(result.vctItem.size() == 2 * nItems);
    result.Clear();
    FUZZ_CHECK(result.vctItem.empty() && !result.bValid && !result.bSuccess && result.strInfo.empty());
    return 0;
}
